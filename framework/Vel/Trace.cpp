#include <Vel/Exception.h>
#include <Vel/Trace.h>

#include <cerrno>
#include <locale>
#include <memory>
#include <new>
#include <sstream>
#include <unistd.h>

namespace Vel {

// The switches of all handles of one name. They form a list that only grows, by an atomic push,
// so that a child forked while another thread makes a handle finds no lock held.
struct TraceHandle::Switches {
   String8 name;
   std::atomic<std::uint64_t> levels{0};
   Switches* next = nullptr;
};

namespace {

constexpr TraceFacility::FacilityLevel highestLevel = 63;

std::atomic<TraceHandle::Switches*> firstSwitches{nullptr};

TraceHandle::Switches* findSwitches(std::string_view name) noexcept {
   TraceHandle::Switches* at = firstSwitches.load(std::memory_order_acquire);
   while (at != nullptr && std::string_view(at->name) != name) {
      at = at->next;
   }
   return at;
}

TraceHandle::Switches* switchesOf(std::string_view name) {
   if (auto* found = findSwitches(name)) {
      return found;
   }
   auto made = std::make_unique<TraceHandle::Switches>();
   made->name = String8(name);
   made->next = firstSwitches.load(std::memory_order_acquire);
   while (!firstSwitches.compare_exchange_weak(made->next, made.get(), std::memory_order_acq_rel)) {
      if (auto* found = findSwitches(name)) { // another thread was faster
         return found;
      }
   }
   return made.release();
}

TraceFacility::Sink& sink() {
   // Never destroyed: static objects of the program may trace while they end.
   alignas(TraceFacility::Sink) static std::byte storage[sizeof(TraceFacility::Sink)];
   static auto* const sink = ::new (static_cast<void*>(storage)) TraceFacility::Sink;
   return *sink;
}

// What a terminal or a line-oriented reader could mistake for something else is shown as \xNN.
void appendEscaped(std::string& line, std::string_view text) {
   for (const char character : text) {
      const auto byte = static_cast<unsigned char>(character);
      if (byte < 0x20 || byte == 0x7f) {
         static constexpr char digits[] = "0123456789abcdef";
         line += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
      } else {
         line += character;
      }
   }
}

void writeToStandardError(std::string_view line) noexcept {
   while (!line.empty()) {
      const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
      if (written > 0) {
         line.remove_prefix(static_cast<std::size_t>(written));
      } else if (written == 0 || errno != EINTR) {
         return; // full, closed: tracing is not worth more
      }
   }
}

} // namespace

void TraceFacility::levelEnabledIs(std::string_view handle, FacilityLevel level, bool enabled) {
   if (level > highestLevel) {
      throwRangeException("a trace level above 63");
   }
   std::atomic<std::uint64_t>& levels = switchesOf(handle)->levels;
   const std::uint64_t bit = std::uint64_t{1} << level;
   enabled ? levels.fetch_or(bit) : levels.fetch_and(~bit);
}

bool TraceFacility::levelEnabled(std::string_view handle, FacilityLevel level) {
   const TraceHandle::Switches* found = findSwitches(handle);
   return found != nullptr && level <= highestLevel && (found->levels >> level & 1) != 0;
}

void TraceFacility::sinkIs(Sink newSink) { sink() = std::move(newSink); }

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as every name is given
TraceHandle::TraceHandle(String8 name, bool allEnabled) : switches_(switchesOf(name)) {
   if (allEnabled) {
      switches_->levels = ~std::uint64_t{0};
   }
}

const String8& TraceHandle::name() const noexcept { return switches_->name; }

bool TraceHandle::levelEnabled(TraceFacility::FacilityLevel level) const noexcept {
   return level <= highestLevel &&
          (switches_->levels.load(std::memory_order_relaxed) >> level & 1) != 0;
}

TraceHelper* TraceHelper::createIfEnabled(TraceHandle& handle, TraceFacility::FacilityLevel level,
                                          void* storage) {
   return handle.levelEnabled(level) ? create(handle, level, storage) : nullptr;
}

TraceHelper* TraceHelper::create(TraceHandle& handle, TraceFacility::FacilityLevel level,
                                 void* storage) {
   try {
      return ::new (storage) TraceHelper(handle, level);
   } catch (const std::bad_alloc&) {
      return nullptr; // as with a sink that fails, the traced operation goes on
   }
}

TraceHelper::TraceHelper(TraceHandle& handle, TraceFacility::FacilityLevel level)
   : handle_(handle), level_(level), message_(std::make_unique<std::ostringstream>()) {
   message_->imbue(std::locale::classic());
}

TraceHelper::~TraceHelper() = default;

std::ostream& TraceHelper::stream() noexcept { return *message_; }

void TraceHelper::trace(const char* file, int line, const char* function) noexcept {
   const int savedErrno = errno; // a message between a call and the look at its errno
   try {
      if (const TraceFacility::Sink current = sink()) { // a copy: a sink may set another one
         current(handle_.name(), static_cast<int>(level_), file, line, function, message_->view());
      } else {
         std::string out;
         appendEscaped(out, handle_.name());
         out += '[' + std::to_string(level_) + "] " + file + ':' + std::to_string(line) + ' ' +
                function + ": ";
         appendEscaped(out, message_->view());
         writeToStandardError(out + '\n');
      }
   } catch (...) {
      // No memory for the line, or a sink that threw: the traced operation goes on.
   }
   errno = savedErrno;
}

} // namespace Vel
