// Storage for process-wide objects that outlive every static destructor.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

// Constructs a T in place and never destroys it, so that a log line written while other static objects
// are being destroyed still finds its writer and its locks. Meant for function-local statics.
template <typename T>
class Immortal {
 public:
  template <typename... Args>
  explicit Immortal(Args&&... args) : object_(::new (storage_) T(std::forward<Args>(args)...)) {}
  Immortal(const Immortal&) = delete;
  Immortal& operator=(const Immortal&) = delete;

  T& get() const { return *object_; }

 private:
  alignas(T) std::byte storage_[sizeof(T)];
  T* object_;
};
