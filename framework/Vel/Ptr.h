// Counted handles, and the one way in which entities are made.
#pragma once

#include <Vel/Exception.h>
#include <Vel/PtrInterface.h>

#include <cstddef>
#include <new>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace Vel {

// The object as one of a derived class; null when it is null or of another class.
template <class T, class U> T* narrowedTo(U* object) {
   if (object != nullptr && typeid(*object) == typeid(T)) { // nearly always, and without search
      return static_cast<T*>(object);
   }
   return dynamic_cast<T*>(object);
}

// Owns one reference of its object, or is null. As large as a pointer. Dropping or overwriting a
// handle may end the object and so run other code; everything else runs none.
template <class T> class Ptr {
 public:
   using element_type = T;

   Ptr() noexcept = default;
   Ptr(std::nullptr_t) noexcept {}
   Ptr(T* object) noexcept : object_(object) { take(); }
   Ptr(const Ptr& other) noexcept : object_(other.object_) { take(); }
   Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(const Ptr<U>& other) noexcept : object_(other.get()) {
      take();
   }
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(Ptr<U>&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
   [[gnu::always_inline]] ~Ptr() { drop(object_); }

   Ptr& operator=(const Ptr& other) {
      assign(other.object_);
      return *this;
   }
   Ptr& operator=(Ptr&& other) {
      if (this != &other) {
         drop(std::exchange(object_, std::exchange(other.object_, nullptr)));
      }
      return *this;
   }
   Ptr& operator=(T* object) {
      assign(object);
      return *this;
   }
   Ptr& operator=(std::nullptr_t) {
      assign(nullptr);
      return *this;
   }

   template <class U> static Ptr narrow(const Ptr<U>& base) { return narrowedTo<T>(base.get()); }

   T* get() const noexcept { return object_; }
   T* operator->() const noexcept { return object_; }
   T& operator*() const noexcept { return *object_; }
   explicit operator bool() const noexcept { return object_ != nullptr; }

 private:
   template <class U> friend class Ptr;

   [[gnu::always_inline]] void take() const noexcept {
      if (object_ != nullptr) {
         object_->referencesInc();
      }
   }
   [[gnu::always_inline]] static void drop(T* object) {
      if (object != nullptr) {
         object->referencesDec();
      }
   }
   // The new object is counted before the old one goes, which may hold the last reference on it.
   void assign(T* object) {
      if (object != object_) {
         Ptr previous(object);
         std::swap(object_, previous.object_);
      }
   }

   T* object_ = nullptr;
};

template <class T, class U> bool operator==(const Ptr<T>& a, const Ptr<U>& b) noexcept {
   return a.get() == b.get();
}
template <class T> bool operator==(const Ptr<T>& a, std::nullptr_t) noexcept {
   return a.get() == nullptr;
}
template <class T> bool operator==(const Ptr<T>& a, std::add_const_t<T>* b) noexcept {
   return a.get() == b;
}

// A handle that can't be null: making one of nothing throws the range exception "null ValidPtr".
template <class T> class ValidPtr : public Ptr<T> {
 public:
   ValidPtr(T* object) : Ptr<T>(object) { check(); }
   ValidPtr(Ptr<T> handle) : Ptr<T>(std::move(handle)) { check(); }

 private:
   void check() const {
      if (this->get() == nullptr) {
         throwRangeException("null ValidPtr");
      }
   }
};

// Makes an entity of class T: the allocation tallied in the class's velAllocTrackTypeInfo_, memory
// from velMemAlloc, the constructor, a handle taken and the creation reference given up. Whatever
// throws on the way leaves nothing behind.
template <class T, class... Args> Ptr<T> newEntity(Args&&... args) {
   constexpr auto size = static_cast<unsigned>(sizeof(T));
   AllocTrackTypeInfo::trackAllocation(&T::velAllocTrackTypeInfo_, typeid(T), size);
   void* memory = nullptr;
   T* made = nullptr;
   try {
      memory = PtrInterface::velMemAlloc(size);
      made = ::new (memory) T(std::forward<Args>(args)...);
   } catch (...) {
      AllocTrackTypeInfo::trackDeallocation(T::velAllocTrackTypeInfo_);
      ::operator delete(memory);
      throw;
   }
   Ptr<T> handle(made);
   made->referencesDec();
   return handle;
}

} // namespace Vel
