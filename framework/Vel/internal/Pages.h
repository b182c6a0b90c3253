// Arrays that grow without moving what is in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Vel {

// In pages that come with the first element asked for in them, and stay. The first one is in place:
// it is all that most programs need, and lies beside what else the process keeps.
template <class T> class Pages {
 public:
   // Null where there is no page yet; so is everything from 2^31 on.
   T* find(std::uint32_t at) noexcept {
      if (at < pageSize) [[likely]] {
         return &first_.elements[at];
      }
      const std::size_t page = at / pageSize - 1;
      return page < more_.size() && more_[page] != nullptr ? &more_[page]->elements[at % pageSize]
                                                           : nullptr;
   }
   T& make(std::uint32_t at) { // throws bad_alloc, and changes nothing then
      T* const element = find(at);
      return element != nullptr ? *element : makePage(at);
   }
   // One more than the highest that there may be.
   std::int64_t end() const noexcept {
      return static_cast<std::int64_t>(more_.size() + 1) * pageSize;
   }
   // visit(at, element) for all that there are.
   template <class Visit> void forEach(Visit&& visit) {
      for (std::size_t page = 0; page <= more_.size(); ++page) {
         Page* const present = page == 0 ? &first_ : more_[page - 1].get();
         for (std::uint32_t at = 0; present != nullptr && at < pageSize; ++at) {
            visit(static_cast<std::uint32_t>(page * pageSize + at), present->elements[at]);
         }
      }
   }

 private:
   static constexpr std::uint32_t pageSize = 64;
   struct Page {
      T elements[pageSize];
   };

   [[gnu::noinline]] T& makePage(std::uint32_t at) {
      const std::size_t page = at / pageSize - 1;
      if (page >= more_.size()) {
         more_.resize(page + 1);
      }
      more_[page] = std::make_unique<Page>();
      return more_[page]->elements[at % pageSize];
   }

   Page first_{};
   std::vector<std::unique_ptr<Page>> more_;
};

// Elements one after the other on such pages.
template <class T> class PagedVector {
 public:
   std::uint32_t size() const noexcept { return size_; }
   T& operator[](std::uint32_t at) noexcept { return *pages_.find(at); }
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
