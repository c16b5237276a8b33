// Every allocation of the plug-in goes to the host's allocator, so that memory
// can cross between plug-in and host in both directions: strings and records
// made on one side are freed on the other. Built into the shared plug-in only;
// its symbols stay private to it (see exports.map), so the host and the rest
// of the process keep their own operators.
#include <new>

#include "host/OS.h"

void* operator new(std::size_t size) {
    return OS()->memory()->allocate(size);
}
void* operator new[](std::size_t size) {
    return OS()->memory()->allocateArray(size);
}
void operator delete(void* p) noexcept {
    OS()->memory()->free(p);
}
void operator delete[](void* p) noexcept {
    OS()->memory()->freeArray(p);
}
// The sized forms, which the compiler calls for complete types, go the same way.
void operator delete(void* p, std::size_t) noexcept {
    OS()->memory()->free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    OS()->memory()->freeArray(p);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new[](size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    OS()->memory()->free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    OS()->memory()->freeArray(p);
}
