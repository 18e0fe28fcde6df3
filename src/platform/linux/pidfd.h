// Process descriptors (pidfd_open(2)). The header of glibc 2.36 declares them without C linkage.
#pragma once

extern "C" {
#include <sys/pidfd.h>
}
