#include <Vel/internal/DescriptorTable.h>

namespace Vel {

DescriptorPlace* DescriptorTable::find(int descriptor) noexcept {
   const auto page = static_cast<std::size_t>(descriptor / pageSize);
   if (descriptor < 0 || page >= pages_.size() || pages_[page] == nullptr) {
      return nullptr;
   }
   return &pages_[page]->places[descriptor % pageSize];
}

DescriptorPlace& DescriptorTable::make(int descriptor) {
   const auto page = static_cast<std::size_t>(descriptor / pageSize);
   if (page >= pages_.size()) {
      pages_.resize(page + 1);
   }
   if (pages_[page] == nullptr) {
      pages_[page] = std::make_unique<Page>();
   }
   return pages_[page]->places[descriptor % pageSize];
}

} // namespace Vel
