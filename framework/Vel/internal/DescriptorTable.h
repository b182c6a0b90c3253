// Who owns which descriptor, by number.
#pragma once

#include <Vel/internal/Pages.h>

#include <cstdint>

namespace Vel {

class FileDescriptor;

// One descriptor number. Its owner is a descriptor object, that of a child's pipe for instance, or
// the watch of children with a tag of its choice.
struct DescriptorPlace {
   static constexpr std::uintptr_t tagBit = 1;
   static constexpr std::uintptr_t childPipeBit = 2; // in an object's address

   std::uintptr_t owner = 0; // 0: none
   std::uint32_t serial = 0; // another one for each owner: tells a fetched event that it is late
   std::uint32_t events = 0; // what the poll set watches it for; 0: it is not in there

   bool tagged() const noexcept { return (owner & tagBit) != 0; }
   std::uint32_t tag() const noexcept { return static_cast<std::uint32_t>(owner >> 1); }
   bool childPipe() const noexcept { return (owner & (tagBit | childPipeBit)) == childPipeBit; }
   FileDescriptor* object() const noexcept {
      return tagged() ? nullptr : reinterpret_cast<FileDescriptor*>(owner & ~childPipeBit);
   }
   void vacate() noexcept {
      owner = 0;
      events = 0;
      ++serial;
   }
};

// Looking up is O(1); a negative number has no place.
class DescriptorTable {
 public:
   using Kept = Pages<DescriptorPlace>::Kept;

   // Empty, also when what is kept is another one's.
   DescriptorTable(DescriptorPlace* first, Kept& kept) noexcept : places_(first, kept) {
      places_.forEach(places_.pageSize, [](std::uint32_t, DescriptorPlace& place) { place = {}; });
   }

   DescriptorPlace* find(int descriptor) noexcept {
      return places_.find(static_cast<std::uint32_t>(descriptor));
   }
   DescriptorPlace& make(int descriptor) { // throws bad_alloc, and changes nothing then
      return places_.make(static_cast<std::uint32_t>(descriptor));
   }
   // One more than the highest number that ever had an owner.
   std::int64_t end() const noexcept { return places_.end(); }

   // For every place with an owner: visit(number, place).
   template <class Visit> void forEach(Visit&& visit) {
      places_.forEach(0, [&](std::uint32_t number, DescriptorPlace& place) {
         if (place.owner != 0) {
            visit(static_cast<int>(number), place);
         }
      });
   }

 private:
   Pages<DescriptorPlace> places_;
};

} // namespace Vel
