// Overflow-checked integer arithmetic. A size, count or index that overflows
// means the host handed us something we cannot represent; the library ends the
// process rather than index a buffer with a wrapped value.
#pragma once

#include <cstdlib>
#include <type_traits>

namespace common {

[[noreturn]] inline void fatal() { std::abort(); }

template <typename T> inline T checkedAdd(T a, T b) {
    static_assert(std::is_integral<T>::value, "integers only");
    T r;
    if (__builtin_add_overflow(a, b, &r)) fatal();
    return r;
}

template <typename T> inline T checkedSub(T a, T b) {
    static_assert(std::is_integral<T>::value, "integers only");
    T r;
    if (__builtin_sub_overflow(a, b, &r)) fatal();
    return r;
}

template <typename T> inline T checkedMul(T a, T b) {
    static_assert(std::is_integral<T>::value, "integers only");
    T r;
    if (__builtin_mul_overflow(a, b, &r)) fatal();
    return r;
}

// Converts between integer types, ending the process if the value does not fit.
template <typename To, typename From> inline To checkedCast(From v) {
    static_assert(std::is_integral<To>::value && std::is_integral<From>::value, "integers only");
    To r;
    if (__builtin_add_overflow(v, From(0), &r)) fatal();
    return r;
}

template <typename T> inline void checkedIncrement(T& v) { v = checkedAdd(v, T(1)); }

} // namespace common
