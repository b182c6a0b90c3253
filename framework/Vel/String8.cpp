#include <Vel/Exception.h>
#include <Vel/String8.h>

#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <ostream>
#include <vector>

namespace Vel {

AllocTrackTypeInfo* String8::Data::velAllocTrackTypeInfo_ = nullptr;

const char* String8::Data::text() const noexcept { return text_; }

String8::Data* String8::Data::make(std::size_t length) {
   const std::size_t size = offsetof(Data, text_) + length + 1;
   if (size > std::numeric_limits<unsigned>::max()) {
      throwRangeException("a string of 4 GiB or more");
   }
   AllocTrackTypeInfo::trackAllocation(&velAllocTrackTypeInfo_, typeid(Data),
                                       static_cast<unsigned>(size));
   void* memory = nullptr;
   try {
      memory = ::operator new(std::max(size, sizeof(Data)));
   } catch (...) {
      AllocTrackTypeInfo::trackDeallocation(velAllocTrackTypeInfo_);
      throw;
   }
   auto* const data = ::new (memory) Data(static_cast<std::uint32_t>(length));
   data->characters()[length] = '\0';
   return data;
}

void String8::Data::end() const noexcept {
   AllocTrackTypeInfo::trackDeallocation(velAllocTrackTypeInfo_);
   ::operator delete(const_cast<Data*>(this));
}

bool String8::Data::operator==(const Data& other) const noexcept {
   return std::string_view(text(), length()) == std::string_view(other.text(), other.length());
}

String8::String8(const char* text) : String8(std::string_view(text != nullptr ? text : "")) {}

String8::String8(std::string_view text) {
   if (!text.empty()) {
      data_ = Data::make(text.size());
      text.copy(data_->characters(), text.size());
   }
}

void String8::init(const char* text, unsigned offset, unsigned length) {
   if (length != 0) {
      *this = String8(std::string_view(text + offset, length));
   }
}

const char* String8::charPtr() const noexcept { return data_ != nullptr ? data_->text() : ""; }

unsigned String8::length() const noexcept { return data_ != nullptr ? data_->length() : 0; }

String8 String8::operator+(const String8& right) const {
   if (empty() || right.empty()) {
      return empty() ? right : *this;
   }
   String8 joined;
   joined.data_ = Data::make(std::size_t{length()} + right.length());
   char* const characters = joined.data_->characters();
   std::memcpy(characters, charPtr(), length());
   std::memcpy(characters + length(), right.charPtr(), right.length());
   return joined;
}

String8 String8::operator+(const char* right) const {
   String8 temporary;
   temporary.init(right, 0, right != nullptr ? static_cast<unsigned>(std::strlen(right)) : 0);
   return *this + temporary;
}

std::ostream& operator<<(std::ostream& stream, const String8& text) {
   return stream.write(text.charPtr(), static_cast<std::streamsize>(text.length()));
}

namespace {

constexpr std::size_t smallText = 64; // names and numbers fit; longer texts are printf's

// Writes text that has no conversions but %d, as the names of a child's things have, and returns
// its end; null for any other text, or for one that doesn't fit.
char* formatPlain(char* out, const char* format, std::va_list arguments) {
   constexpr std::ptrdiff_t longestNumber = 11;
   for (const char* const end = out + smallText;; format += 2) {
      const char* const percent = ::strchrnul(format, '%');
      const std::ptrdiff_t length = percent - format;
      if (length > end - out - longestNumber) {
         return nullptr;
      }
      out = static_cast<char*>(std::memcpy(out, format, static_cast<std::size_t>(length))) + length;
      format = percent;
      if (*format == '\0') {
         return out;
      }
      if (format[1] != 'd') {
         return nullptr;
      }
      out = std::to_chars(out, out + longestNumber, va_arg(arguments, int)).ptr;
   }
}

// Ends with the function that it stands in.
struct Arguments {
   std::va_list list;
   ~Arguments() { va_end(list); }
};

[[gnu::noinline]] String8 formatByPrintf(const char* format, std::va_list arguments) {
   Arguments again;
   va_copy(again.list, arguments);
   char small[128];
   const int length = std::vsnprintf(small, sizeof small, format, arguments);
   if (length < 0) {
      throwRangeException("a format that can't be carried out");
   }
   if (length < static_cast<int>(sizeof small)) {
      return String8(std::string_view(small, static_cast<std::size_t>(length)));
   }
   std::vector<char> large(static_cast<std::size_t>(length) + 1);
   std::vsnprintf(large.data(), large.size(), format, again.list);
   return String8(std::string_view(large.data(), static_cast<std::size_t>(length)));
}

} // namespace

String8 format(const char* format, ...) {
   char text[smallText];
   {
      Arguments arguments;
      va_start(arguments.list, format);
      if (const char* const end = formatPlain(text, format, arguments.list)) {
         return String8(std::string_view(text, static_cast<std::size_t>(end - text)));
      }
   }
   Arguments arguments;
   va_start(arguments.list, format);
   return formatByPrintf(format, arguments.list);
}

void Name::write() const {
   text_ = format(pattern_, number_);
   pattern_ = nullptr;
}

String8 valueToStrep(const String8& value) {
   static constexpr char digits[] = "0123456789abcdef";
   std::string out = "\"";
   for (const char character : std::string_view(value)) {
      const auto byte = static_cast<unsigned char>(character);
      if (character == '"' || character == '\\') {
         out += '\\';
         out += character;
      } else if (character == '\n') {
         out += "\\n";
      } else if (byte < 0x20 || byte > 0x7e) {
         out += "\\x";
         out += digits[byte >> 4];
         out += digits[byte & 15];
      } else {
         out += character;
      }
   }
   return out + '"';
}

namespace {

int hexDigit(char character) {
   if (character >= '0' && character <= '9') {
      return character - '0';
   }
   const char lower = static_cast<char>(character | 0x20);
   return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The character that an escape stands for; at is behind the backslash and is moved past it.
char unescaped(const char*& at, const char* end) {
   const char kind = at != end ? *at++ : '\0';
   if (kind == '"' || kind == '\\') {
      return kind;
   }
   if (kind == 'n') {
      return '\n';
   }
   if (kind == 'x' && end - at >= 2 && hexDigit(at[0]) >= 0 && hexDigit(at[1]) >= 0) {
      const int byte = hexDigit(at[0]) * 16 + hexDigit(at[1]);
      at += 2;
      return static_cast<char>(byte);
   }
   throwRangeException("a quoted text with an unknown escape: expected \\\" \\\\ \\n or \\xNN");
}

} // namespace

String8 sequenceToValue(String8::IteratorConst& it, const String8::IteratorConst& end, String8*) {
   if (it == end || *it != '"') {
      const std::string_view bare(it, static_cast<std::size_t>(end - it));
      it = end;
      return bare;
   }
   std::string out;
   for (const char* at = it + 1; at != end;) {
      const char character = *at++;
      if (character == '"') {
         it = at;
         return out;
      }
      out += character == '\\' ? unescaped(at, end) : character;
   }
   throwRangeException("a quoted text without its closing quote");
}

} // namespace Vel
