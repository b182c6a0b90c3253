// Who owns which descriptor, by number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Vel {

class FileDescriptor;

// One descriptor number. Its owner is a descriptor object, or the watch of children with a tag
// of its choice.
struct DescriptorPlace {
   std::uintptr_t owner = 0; // 0: none; low bit set: the tag; else the descriptor object
   std::uint32_t serial = 0; // another one for each owner: tells a fetched event that it is late
   std::uint32_t events = 0; // what the poll set watches it for; 0: it is not in there

   bool tagged() const noexcept { return (owner & 1) != 0; }
   std::uint32_t tag() const noexcept { return static_cast<std::uint32_t>(owner >> 1); }
   FileDescriptor* object() const noexcept {
      return tagged() ? nullptr : reinterpret_cast<FileDescriptor*>(owner);
   }
   void vacate() noexcept {
      owner = 0;
      events = 0;
      ++serial;
   }
};

// Places by number, in pages that come with the first owner in them and stay. Looking up is O(1).
class DescriptorTable {
 public:
   DescriptorPlace* find(int descriptor) noexcept {
      const std::size_t page = static_cast<unsigned>(descriptor) / pageSize; // none if negative
      return page < pages_.size() && pages_[page] != nullptr
                ? &pages_[page]->places[static_cast<unsigned>(descriptor) % pageSize]
                : nullptr;
   }
   DescriptorPlace& make(int descriptor); // throws bad_alloc, and changes nothing then
   // One more than the highest number that there is a place for.
   std::int64_t end() const noexcept { return static_cast<std::int64_t>(pages_.size()) * pageSize; }

   // For every place with an owner: visit(number, place).
   template <class Visit> void forEach(Visit&& visit) {
      for (std::size_t page = 0; page < pages_.size(); ++page) {
         for (unsigned at = 0; pages_[page] != nullptr && at < pageSize; ++at) {
            if (pages_[page]->places[at].owner != 0) {
               visit(static_cast<int>(page * pageSize + at), pages_[page]->places[at]);
            }
         }
      }
   }

 private:
   static constexpr unsigned pageSize = 64;
   struct Page {
      DescriptorPlace places[pageSize];
   };
   std::vector<std::unique_ptr<Page>> pages_;
};

} // namespace Vel
