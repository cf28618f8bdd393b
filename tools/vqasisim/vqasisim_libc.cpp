#include "vqasisim_libc.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace vqasisim {
namespace {

template <typename F>
void resolve(F& target, const char* name) {
    target = reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
    if (!target) {
        std::fprintf(stderr, "vqasisim: cannot find the C library's %s\n", name);
        std::abort();
    }
}

libc_functions load() {
    libc_functions f{};
    resolve(f.open, "open");
    resolve(f.openat, "openat");
    resolve(f.close, "close");
    resolve(f.ioctl, "ioctl");
    resolve(f.mmap, "mmap");
    resolve(f.munmap, "munmap");
    resolve(f.fstatat, "fstatat");
    resolve(f.fstatat64, "fstatat64");
    resolve(f.fstat, "fstat");
    resolve(f.fstat64, "fstat64");
    resolve(f.fopen, "fopen");
    resolve(f.fopen64, "fopen64");
    return f;
}

}  // namespace

const libc_functions& libc() {
    static const libc_functions functions = load();
    return functions;
}

}  // namespace vqasisim
