// The few services of the OS layer that the lowest host types (counted
// handles and strings) need, as plain functions so that those headers do not
// depend on the whole layer. They forward to OS().
#pragma once

#include <cstddef>

namespace QvOS {
void* allocate(std::size_t size);
void free(void* block);
int atomicIncrement(int* count);
int atomicDecrement(int* count);
}  // namespace QvOS
