// Arrays that grow without moving what is in them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace Vel {

// In pages that come with the first element asked for in them, and stay. The first one, zeroed, is
// there from the start, though no memory until it is used; it is all that most programs need.
template <class T> class Pages {
 public:
   static constexpr std::uint32_t pageSize = 1 << 14;

   // Somebody else has it, and may have it longer.
   struct Kept {
      std::vector<std::unique_ptr<T[]>> more; // by page; none for the first
      std::uint32_t end = 0;                  // one more than the highest ever asked for
   };

   Pages(T* first, Kept& kept) noexcept : first_(first), kept_(kept) {}

   T& operator[](std::uint32_t at) noexcept {
      return at < pageSize ? first_[at] : kept_.more[at / pageSize][at % pageSize];
   }
   // Null where there is no page yet.
   T* find(std::uint32_t at) noexcept {
      if (at < pageSize) [[likely]] {
         return &first_[at];
      }
      const std::uint32_t page = at / pageSize;
      const bool there = page < kept_.more.size() && kept_.more[page] != nullptr;
      return there ? &kept_.more[page][at % pageSize] : nullptr;
   }
   T& make(std::uint32_t at) { // throws bad_alloc, and changes nothing seen then
      T* const element = find(at);
      T& made = element != nullptr ? *element : makePage(at);
      if (at >= kept_.end) {
         kept_.end = at + 1;
      }
      return made;
   }
   std::uint32_t end() const noexcept { return kept_.end; }
   // visit(at, element) for all that there are, from that one on.
   template <class Visit> void forEach(std::uint32_t from, Visit&& visit) {
      for (std::uint32_t at = from; at < kept_.end; ++at) {
         if (T* const element = find(at)) {
            visit(at, *element);
         }
      }
   }

 private:
   [[gnu::noinline]] T& makePage(std::uint32_t at) {
      const std::uint32_t page = at / pageSize;
      auto elements = std::make_unique<T[]>(pageSize);
      if (page >= kept_.more.size()) {
         kept_.more.resize(page + 1);
      }
      kept_.more[page] = std::move(elements);
      return (*this)[at];
   }

   T* first_;
   Kept& kept_;
};

// Elements one after the other on such pages.
template <class T> class PagedVector {
 public:
   using Kept = typename Pages<T>::Kept;

   PagedVector(T* first, Kept& kept) noexcept : pages_(first, kept) {}
   std::uint32_t size() const noexcept { return size_; }
   T& operator[](std::uint32_t at) noexcept { return pages_[at]; }
   T& back() noexcept { return (*this)[size_ - 1]; }
   void reserveOne() { pages_.make(size_); } // throws bad_alloc; push_back cannot fail then
   void push_back(const T& element) noexcept { (*this)[size_++] = element; }
   void pop_back() noexcept { --size_; }

 private:
   std::uint32_t size_ = 0;
   Pages<T> pages_;
};

} // namespace Vel
