// Atomic reads and writes of single plain fields (the kernel's `status`
// record, `arm_count`) that the receive thread writes while other threads
// read them without a lock. The fields keep their plain documented types;
// only the library's own accesses go through these.
#pragma once

namespace kelm {
namespace status_field {

template <typename T>
T load(const T& field) {
    T value;
    __atomic_load(&field, &value, __ATOMIC_RELAXED);
    return value;
}

template <typename T, typename U>
void store(T& field, U value) {
    T converted = static_cast<T>(value);
    __atomic_store(&field, &converted, __ATOMIC_RELAXED);
}

}  // namespace status_field
}  // namespace kelm
