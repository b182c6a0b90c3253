#include <Vel/internal/DescriptorTable.h>

namespace Vel {

DescriptorPlace& DescriptorTable::make(int descriptor) {
   const std::size_t page = static_cast<unsigned>(descriptor) / pageSize;
   if (page >= pages_.size()) {
      pages_.resize(page + 1);
   }
   if (pages_[page] == nullptr) {
      pages_[page] = std::make_unique<Page>();
   }
   return pages_[page]->places[static_cast<unsigned>(descriptor) % pageSize];
}

} // namespace Vel
