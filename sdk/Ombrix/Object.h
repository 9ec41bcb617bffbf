// Reference counting shared by every object that crosses the host/module boundary.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <type_traits>
#include <utility>

namespace Ombrix {

// Base of every host interface. The first three virtual slots are fixed; each
// derived interface declares its own virtual destructor after its operations,
// so those operations follow these three directly in the table.
class IObject {
public:
    virtual void AddRef() = 0;
    // Drops one reference; destroys the object and returns true on the last one.
    virtual bool Release() = 0;
    virtual int32_t GetCount() const = 0;

protected:
    ~IObject() = default;
};

// Atomic reference count starting at 1: a new object belongs to its creator.
template <class Interface = IObject>
class UseCounted : public Interface {
public:
    UseCounted() = default;
    // A copy is a new object with its own single reference.
    UseCounted(const UseCounted& other) : Interface(other) {}
    UseCounted& operator=(const UseCounted&) = delete;

    void AddRef() override { count_.fetch_add(1, std::memory_order_relaxed); }
    bool Release() override {
        if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
            return true;
        }
        return false;
    }
    int32_t GetCount() const override { return count_.load(std::memory_order_relaxed); }

    virtual ~UseCounted() = default;

private:
    std::atomic<int32_t> count_{1};
};

[[noreturn]] inline void InvalidCastOfAutoRefPtr() { std::abort(); }

// Smart pointer over a reference-counted interface. Construction from a raw
// pointer adopts that pointer's reference; copies add one; destruction releases.
template <class T>
class AutoRefPtr {
public:
    AutoRefPtr() noexcept = default;
    AutoRefPtr(std::nullptr_t) noexcept {}
    explicit AutoRefPtr(T* adopted) noexcept : ptr_(adopted) {}
    AutoRefPtr(const AutoRefPtr& other) noexcept : ptr_(other.ptr_) { AddRefImpl(); }
    AutoRefPtr(AutoRefPtr&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    AutoRefPtr(const AutoRefPtr<U>& other) noexcept : ptr_(other.get()) {
        AddRefImpl();
    }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    AutoRefPtr(AutoRefPtr<U>&& other) noexcept : ptr_(other.detach()) {}
    ~AutoRefPtr() { ReleaseImpl(); }

    AutoRefPtr& operator=(AutoRefPtr other) noexcept {
        std::swap(ptr_, other.ptr_);
        return *this;
    }

    // Shares an object the caller does not own a reference to.
    static AutoRefPtr Share(T* ptr) noexcept {
        if (ptr) ptr->AddRef();
        return AutoRefPtr(ptr);
    }

    T* get() const noexcept { return ptr_; }
    T* operator->() const noexcept { return ptr_; }
    T& operator*() const noexcept { return *ptr_; }
    explicit operator bool() const noexcept { return ptr_ != nullptr; }
    // Gives up ownership without releasing.
    T* detach() noexcept { return std::exchange(ptr_, nullptr); }

    // Run-time cast to another interface; null when the object is not one.
    template <class U>
    AutoRefPtr<U> DynamicCast() const noexcept {
        return AutoRefPtr<U>::Share(dynamic_cast<U*>(ptr_));
    }
    // Cast the caller asserts to be valid; a wrong one is a programming error.
    template <class U>
    AutoRefPtr<U> CheckedCast() const noexcept {
        U* cast = dynamic_cast<U*>(ptr_);
        if (ptr_ && !cast) InvalidCastOfAutoRefPtr();
        return AutoRefPtr<U>::Share(cast);
    }

private:
    void AddRefImpl() noexcept {
        if (ptr_) ptr_->AddRef();
    }
    void ReleaseImpl() noexcept {
        if (ptr_) ptr_->Release();
    }

    T* ptr_ = nullptr;
};

template <class T, class... Args>
AutoRefPtr<T> MakeRef(Args&&... args) {
    return AutoRefPtr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Ombrix
