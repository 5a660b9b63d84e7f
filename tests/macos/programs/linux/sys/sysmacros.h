#pragma once

// A header of Linux that tests include: what it has stands in another one.
#include <sys/types.h>
