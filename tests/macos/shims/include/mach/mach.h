#pragma once

// Stands for the platform's header of this name; like all of this folder for tests on Linux only.
// tests/macos/ShimTypes.cpp holds every declaration here against the real one.
using kern_return_t = int;
using mach_port_t = unsigned int;
using host_t = mach_port_t;

inline constexpr kern_return_t KERN_SUCCESS = 0;
inline constexpr kern_return_t KERN_INVALID_ARGUMENT = 4;
inline constexpr kern_return_t KERN_FAILURE = 5;

extern "C" host_t mach_host_self();
