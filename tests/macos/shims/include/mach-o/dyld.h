#pragma once

#include <cstdint>

struct mach_header;

extern "C" {
int _NSGetExecutablePath(char* path, std::uint32_t* size);
void _dyld_register_func_for_remove_image(void (*function)(const mach_header* image, std::intptr_t slide));
}
