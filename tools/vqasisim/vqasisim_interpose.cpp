// The C library names the simulator answers for: opening a configured device
// path gives a simulated node; every other file goes to the C library untouched.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "vqasisim_config.h"
#include "vqasisim_device.h"
#include "vqasisim_libc.h"

namespace vqasisim {
namespace {

constexpr int kMaxFd = 65536;
constexpr unsigned kVideoMajor = 81;  // the video4linux character devices
constexpr unsigned kFirstMinor = 200;

struct registry {
    std::mutex lock;
    std::map<std::string, std::unique_ptr<sim_device>> devices;
    std::map<int, sim_device*> fds;
    std::map<std::string, std::string> summaries;  // last session of each node
};

// Never destroyed: the application may use its files until the very end.
registry& reg() {
    static registry* r = new registry;
    return *r;
}

// Lock-free answers to "is this one of ours?" for the hot paths.
std::atomic<bool> g_simFd[kMaxFd];
std::atomic<size_t> g_liveMappings{0};

bool is_sim_fd(int fd) { return fd >= 0 && fd < kMaxFd && g_simFd[fd].load(std::memory_order_acquire); }

// The place of `path` in VQASISIM_DEVICE, or -1.
int device_index(const char* path) {
    const char* list = std::getenv("VQASISIM_DEVICE");
    if (!path || !list || !std::strstr(list, path))
        return -1;
    std::vector<std::string> devices = configured_devices();
    for (size_t i = 0; i < devices.size(); ++i) {
        if (devices[i] == path)
            return int(i);
    }
    return -1;
}

void write_summaries(const std::string& file) {
    if (file.empty())
        return;
    std::FILE* f = std::fopen(file.c_str(), "w");
    if (!f) {
        std::fprintf(stderr, "vqasisim: cannot write summary %s: %s\n", file.c_str(), std::strerror(errno));
        return;
    }
    bool first = true;
    for (const auto& entry : reg().summaries) {
        if (!first)
            std::fputc('\n', f);
        std::fputs(entry.second.c_str(), f);
        first = false;
    }
    std::fclose(f);
}

int open_device(int index, const char* path, int flags) {
    registry& r = reg();
    std::lock_guard<std::mutex> guard(r.lock);
    std::unique_ptr<sim_device>& dev = r.devices[path];
    if (!dev)
        dev.reset(new sim_device(path));
    int fd = dev->open(flags, size_t(index));
    if (fd < 0) {
        errno = -fd;
        return -1;
    }
    if (fd >= kMaxFd) {
        dev->close(fd);
        libc().close(fd);
        errno = EMFILE;
        return -1;
    }
    r.fds[fd] = dev.get();
    g_simFd[fd].store(true, std::memory_order_release);
    return fd;
}

int open_file(int dirfd, const char* path, int flags, mode_t mode) {
    if (path && (dirfd == AT_FDCWD || path[0] == '/')) {
        int index = device_index(path);
        if (index >= 0)
            return open_device(index, path, flags);
    }
    return libc().openat(dirfd, path, flags, mode);
}

mode_t mode_argument(int flags, va_list args) {
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? mode_t(va_arg(args, int)) : 0;
}

// Device nodes are character devices of the video4linux major.
template <typename Stat>
void fake_node_stat(int index, Stat* st) {
    std::memset(st, 0, sizeof *st);
    st->st_mode = S_IFCHR | 0660;
    st->st_nlink = 1;
    st->st_rdev = makedev(kVideoMajor, kFirstMinor + unsigned(index));
    st->st_blksize = 4096;
}

template <typename Stat>
int stat_path(int dirfd, const char* path, Stat* st, int (*real)(int, const char*, Stat*, int), int flags) {
    if (path && st && (dirfd == AT_FDCWD || path[0] == '/')) {
        int index = device_index(path);
        if (index >= 0) {
            fake_node_stat(index, st);
            return 0;
        }
    }
    return real(dirfd, path, st, flags);
}

template <typename Stat>
int stat_fd(int fd, Stat* st, int (*real)(int, Stat*)) {
    if (is_sim_fd(fd) && st) {
        registry& r = reg();
        std::lock_guard<std::mutex> guard(r.lock);
        auto it = r.fds.find(fd);
        if (it != r.fds.end()) {
            fake_node_stat(device_index(it->second->path().c_str()), st);
            return 0;
        }
    }
    return real(fd, st);
}

// The kernel's description of a node, which V4L2 tools read to tell a video
// node from a radio or sub-device node: /sys/dev/char/MAJOR:MINOR/uevent.
std::FILE* open_stream(const char* path, const char* mode, std::FILE* (*real)(const char*, const char*)) {
    static const std::string prefix = "/sys/dev/char/" + std::to_string(kVideoMajor) + ":";
    const char* list = std::getenv("VQASISIM_DEVICE");
    if (list && path && std::strncmp(path, prefix.c_str(), prefix.size()) == 0) {
        size_t count = configured_devices().size();
        for (size_t i = 0; i < count; ++i) {
            unsigned minor = kFirstMinor + unsigned(i);
            if (prefix + std::to_string(minor) + "/uevent" != path)
                continue;
            std::string text = "MAJOR=" + std::to_string(kVideoMajor) + "\nMINOR=" + std::to_string(minor) +
                               "\nDEVNAME=video" + std::to_string(minor) + "\n";
            // A stream with a real descriptor: C++ file streams read through it.
            int fd = memfd_create("vqasisim-uevent", MFD_CLOEXEC);
            if (fd < 0)
                return nullptr;
            if (write(fd, text.data(), text.size()) != ssize_t(text.size()) || lseek(fd, 0, SEEK_SET) != 0) {
                libc().close(fd);
                return nullptr;
            }
            std::FILE* f = fdopen(fd, "r");
            if (!f)
                libc().close(fd);
            return f;
        }
    }
    return real(path, mode);
}

int close_file(int fd) {
    if (!is_sim_fd(fd))
        return libc().close(fd);
    registry& r = reg();
    std::lock_guard<std::mutex> guard(r.lock);
    auto it = r.fds.find(fd);
    if (it == r.fds.end())
        return libc().close(fd);
    sim_device* dev = it->second;
    r.fds.erase(it);
    // Forget the number before it is free for reuse.
    g_simFd[fd].store(false, std::memory_order_release);
    bool last = dev->close(fd);
    int result = libc().close(fd);
    if (last) {
        r.summaries[dev->path()] = dev->summary();
        write_summaries(dev->summary_path());
    }
    return result;
}

int device_ioctl(int fd, unsigned long request, void* arg) {
    registry& r = reg();
    std::unique_lock<std::mutex> lock(r.lock);
    auto it = r.fds.find(fd);
    if (it == r.fds.end())
        return libc().ioctl(fd, request, arg);
    int result = it->second->ioctl(fd, request, arg, lock);
    if (result < 0) {
        errno = -result;
        return -1;
    }
    return result;
}

void* device_mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    registry& r = reg();
    std::lock_guard<std::mutex> guard(r.lock);
    auto it = r.fds.find(fd);
    if (it == r.fds.end())
        return libc().mmap(addr, length, prot, flags, fd, offset);
    int error = 0;
    void* p = it->second->mmap(addr, length, prot, flags, offset, error);
    if (p == MAP_FAILED)
        errno = error;
    else
        ++g_liveMappings;
    return p;
}

int unmap(void* addr, size_t length) {
    if (g_liveMappings.load() != 0) {
        registry& r = reg();
        std::lock_guard<std::mutex> guard(r.lock);
        for (auto& entry : r.devices)
            g_liveMappings -= entry.second->forget_mappings(addr, length);
    }
    return libc().munmap(addr, length);
}

// Nodes still open when the process ends report too.
__attribute__((destructor)) void write_open_summaries() {
    registry& r = reg();
    std::lock_guard<std::mutex> guard(r.lock);
    for (auto& entry : r.devices) {
        if (!entry.second->is_open())
            continue;
        r.summaries[entry.first] = entry.second->summary();
        write_summaries(entry.second->summary_path());
    }
}

}  // namespace
}  // namespace vqasisim

// Only these names leave the library.
#pragma GCC visibility push(default)
extern "C" {

// Declared by the C library only under _FORTIFY_SOURCE.
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags);

int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = vqasisim::mode_argument(flags, args);
    va_end(args);
    return vqasisim::open_file(AT_FDCWD, path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = vqasisim::mode_argument(flags, args);
    va_end(args);
    return vqasisim::open_file(dirfd, path, flags, mode);
}

int __open_2(const char* path, int flags) { return vqasisim::open_file(AT_FDCWD, path, flags, 0); }
int __openat_2(int dirfd, const char* path, int flags) { return vqasisim::open_file(dirfd, path, flags, 0); }

// On this platform files are 64-bit already: the 64 names are the same functions.
int open64(const char* path, int flags, ...) __attribute__((alias("open")));
int openat64(int dirfd, const char* path, int flags, ...) __attribute__((alias("openat")));
int __open64_2(const char* path, int flags) __attribute__((alias("__open_2")));
int __openat64_2(int dirfd, const char* path, int flags) __attribute__((alias("__openat_2")));

int close(int fd) { return vqasisim::close_file(fd); }

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    if (!vqasisim::is_sim_fd(fd))
        return vqasisim::libc().ioctl(fd, request, arg);
    return vqasisim::device_ioctl(fd, request, arg);
}

void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
    if (!vqasisim::is_sim_fd(fd))
        return vqasisim::libc().mmap(addr, length, prot, flags, fd, offset);
    return vqasisim::device_mmap(addr, length, prot, flags, fd, offset);
}

void* mmap64(void* addr, size_t length, int prot, int flags, int fd, off64_t offset) noexcept
    __attribute__((alias("mmap")));

int munmap(void* addr, size_t length) noexcept { return vqasisim::unmap(addr, length); }

int stat(const char* path, struct stat* st) noexcept {
    return vqasisim::stat_path(AT_FDCWD, path, st, vqasisim::libc().fstatat, 0);
}
int stat64(const char* path, struct stat64* st) noexcept {
    return vqasisim::stat_path(AT_FDCWD, path, st, vqasisim::libc().fstatat64, 0);
}
int lstat(const char* path, struct stat* st) noexcept {
    return vqasisim::stat_path(AT_FDCWD, path, st, vqasisim::libc().fstatat, AT_SYMLINK_NOFOLLOW);
}
int lstat64(const char* path, struct stat64* st) noexcept {
    return vqasisim::stat_path(AT_FDCWD, path, st, vqasisim::libc().fstatat64, AT_SYMLINK_NOFOLLOW);
}
int fstatat(int dirfd, const char* path, struct stat* st, int flags) noexcept {
    return vqasisim::stat_path(dirfd, path, st, vqasisim::libc().fstatat, flags);
}
int fstatat64(int dirfd, const char* path, struct stat64* st, int flags) noexcept {
    return vqasisim::stat_path(dirfd, path, st, vqasisim::libc().fstatat64, flags);
}
std::FILE* fopen(const char* path, const char* mode) {
    return vqasisim::open_stream(path, mode, vqasisim::libc().fopen);
}
std::FILE* fopen64(const char* path, const char* mode) {
    return vqasisim::open_stream(path, mode, vqasisim::libc().fopen64);
}
int fstat(int fd, struct stat* st) noexcept { return vqasisim::stat_fd(fd, st, vqasisim::libc().fstat); }
int fstat64(int fd, struct stat64* st) noexcept { return vqasisim::stat_fd(fd, st, vqasisim::libc().fstat64); }

}  // extern "C"
#pragma GCC visibility pop
