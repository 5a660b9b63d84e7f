#pragma once

#include <string>

namespace kes::fs {

/// What the system makes a temporary name of: `name`, in the temporary directory if it holds no '/', and
/// six characters X.
std::string tempTemplate(const std::string& name);

}  // namespace kes::fs
