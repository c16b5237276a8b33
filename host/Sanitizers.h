// Whether this build runs under a sanitizer that owns the heap and the
// address space (AddressSanitizer, ThreadSanitizer, MemorySanitizer):
// QVXML_UNDER_SANITIZERS is defined then, by gcc's macros or clang's
// __has_feature alike.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QVXML_UNDER_SANITIZERS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define QVXML_UNDER_SANITIZERS 1
#endif
#endif
