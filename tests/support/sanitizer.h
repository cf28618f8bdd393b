#pragma once
// VQ_UNDER_ASAN is defined in an AddressSanitizer build (GCC says so with
// __SANITIZE_ADDRESS__, Clang through __has_feature). Suites run lighter loads
// there, and skip memory-growth checks: freed memory sits in quarantine, and
// LeakSanitizer checks leaks instead.

#if defined(__SANITIZE_ADDRESS__)
#define VQ_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VQ_UNDER_ASAN 1
#endif
#endif
