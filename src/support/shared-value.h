#pragma once

#include <atomic>

namespace quillon {

/// A value that one thread may write while another reads it, inside a record that is copied.
///
/// Each access is atomic by itself and orders nothing else. A copy takes the value as it is.
template <typename T>
class SharedValue
{
public:
    explicit SharedValue(T value) : value_(value) {}
    SharedValue(const SharedValue& other) : value_(other.get()) {}
    SharedValue& operator=(const SharedValue& other)
    {
        set(other.get());
        return *this;
    }
    ~SharedValue() = default;

    T get() const { return value_.load(std::memory_order_relaxed); }
    void set(T value) { value_.store(value, std::memory_order_relaxed); }

private:
    std::atomic<T> value_;
};

}  // namespace quillon
