#pragma once
// The C library's own file and memory functions, found behind the simulator's
// interposed names. The simulator uses these for its own work so that it never
// re-enters itself.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdio>

namespace vqasisim {

struct libc_functions {
    int (*open)(const char* path, int flags, ...);
    int (*openat)(int dirfd, const char* path, int flags, ...);
    int (*close)(int fd);
    int (*ioctl)(int fd, unsigned long request, ...);
    void* (*mmap)(void* addr, size_t length, int prot, int flags, int fd, off_t offset);
    int (*munmap)(void* addr, size_t length);
    int (*fstatat)(int dirfd, const char* path, struct stat* st, int flags);
    int (*fstatat64)(int dirfd, const char* path, struct stat64* st, int flags);
    int (*fstat)(int fd, struct stat* st);
    int (*fstat64)(int fd, struct stat64* st);
    std::FILE* (*fopen)(const char* path, const char* mode);
    std::FILE* (*fopen64)(const char* path, const char* mode);
};

// Resolved on first use; never null afterwards.
const libc_functions& libc();

}  // namespace vqasisim
