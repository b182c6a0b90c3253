// Arrays that grow without moving what is in them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace Vel {

// In pages that come with the first element asked for in them, and stay. The first one is in place:
// it is all that most programs need, and lies beside what else the process keeps. The others are
// somebody else's, who may keep them longer.
template <class T> class Pages {
 public:
   using More = std::vector<std::unique_ptr<T[]>>; // by page; none for the first

   explicit Pages(More& more) noexcept
      : pages_(std::max<std::uint32_t>(static_cast<std::uint32_t>(more.size()), 1)), more_(more) {}

   T& operator[](std::uint32_t at) noexcept {
      return at < pageSize ? first_[at] : more_[at / pageSize][at % pageSize];
   }
   // Null where there is no page yet.
   T* find(std::uint32_t at) noexcept {
      if (at < pageSize) [[likely]] {
         return &first_[at];
      }
      const std::uint32_t page = at / pageSize;
      return page < pages_ && more_[page] != nullptr ? &more_[page][at % pageSize] : nullptr;
   }
   T& make(std::uint32_t at) { // throws bad_alloc, and changes nothing seen then
      T* const element = find(at);
      return element != nullptr ? *element : makePage(at);
   }
   // One more than the highest that there may be.
   std::int64_t end() const noexcept { return std::int64_t{pages_} * pageSize; }
   // visit(at, element) for all that there are.
   template <class Visit> void forEach(Visit&& visit) {
      for (std::uint32_t page = 0; page < pages_; ++page) {
         T* const elements = page == 0 ? first_ : more_[page].get();
         for (std::uint32_t at = 0; elements != nullptr && at < pageSize; ++at) {
            visit(page * pageSize + at, elements[at]);
         }
      }
   }

 private:
   static constexpr std::uint32_t pageSize = 64;

   [[gnu::noinline]] T& makePage(std::uint32_t at) {
      const std::uint32_t page = at / pageSize;
      auto elements = std::make_unique<T[]>(pageSize);
      if (page >= pages_) {
         more_.resize(page + 1);
         pages_ = page + 1;
      }
      more_[page] = std::move(elements);
      return (*this)[at];
   }

   std::uint32_t pages_; // as many as there may be
   More& more_;
   T first_[pageSize]{};
};

// Elements one after the other on such pages.
template <class T> class PagedVector {
 public:
   using More = typename Pages<T>::More;

   explicit PagedVector(More& more) noexcept : pages_(more) {}
   std::uint32_t size() const noexcept { return size_; }
   T& operator[](std::uint32_t at) noexcept { return pages_[at]; }
   T& back() noexcept { return (*this)[size_ - 1]; }
   void reserveOne() { pages_.make(size_); } // throws bad_alloc; push_back cannot fail then
   void push_back(const T& element) noexcept { (*this)[size_++] = element; }
   void pop_back() noexcept { --size_; }
   void clear() noexcept { size_ = 0; }

 private:
   std::uint32_t size_ = 0;
   Pages<T> pages_;
};

} // namespace Vel
