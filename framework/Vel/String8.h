// Shared counted strings, their string representation, and printf-like formatting.
#pragma once

#include <Vel/PtrInterface.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Vel {

class Name;

// Any bytes, counted and shared: a copy is a handle. As large as a pointer; an empty string needs
// no memory. Handles may be copied and dropped on several threads as those of entities.
class VEL_EXPORT String8 {
 public:
   class Data;
   using IteratorConst = const char*;

   String8() noexcept = default;
   String8(const char* text); // null counts as empty
   String8(std::string_view text);
   String8(const std::string& text) : String8(std::string_view(text)) {}
   String8(const Name& name);
   inline String8(const String8& other) noexcept;
   String8(String8&& other) noexcept : data_(other.data_) { other.data_ = nullptr; }
   inline ~String8();
   String8& operator=(const String8& other) noexcept {
      String8 taken(other);
      return *this = static_cast<String8&&>(taken);
   }
   String8& operator=(String8&& other) noexcept {
      String8 taken(static_cast<String8&&>(other));
      std::swap(data_, taken.data_);
      return *this;
   }

   // Fills an empty string with length bytes of the text that follow the first offset ones.
   void init(const char* text, unsigned offset, unsigned length);

   const char* charPtr() const noexcept; // ends with a NUL that the length doesn't count
   unsigned length() const noexcept;     // in bytes
   bool empty() const noexcept { return data_ == nullptr; }
   IteratorConst begin() const noexcept { return charPtr(); }
   IteratorConst end() const noexcept { return charPtr() + length(); }
   operator std::string_view() const noexcept { return {charPtr(), length()}; }

   String8 operator+(const String8& right) const;
   String8 operator+(const char* right) const; // null counts as empty

   friend bool operator==(const String8& a, const String8& b) noexcept {
      return std::string_view(a) == std::string_view(b);
   }

 private:
   Data* data_ = nullptr; // one reference; null when empty
};

// The block behind a string: reference word, length, two bytes, characters and a NUL.
class VEL_EXPORT String8::Data {
 public:
   std::uint32_t length() const noexcept { return length_; }
   const char* text() const noexcept;
   bool operator==(const Data& other) const noexcept;
   void referencesInc() const noexcept { VFPtrInterface::countInc(references_); }
   // Returns the masked count that is left; frees the block at zero.
   std::uint32_t referencesDec() const noexcept {
      const std::uint32_t left = VFPtrInterface::countDec(references_);
      if (left == 0) {
         end();
      }
      return left;
   }

   static AllocTrackTypeInfo* velAllocTrackTypeInfo_;

 private:
   friend class String8;
   static Data* make(std::size_t length); // the caller fills in the characters before the NUL
   char* characters() noexcept { return reinterpret_cast<char*>(this) + offsetof(Data, text_); }
   void end() const noexcept;
   explicit Data(std::uint32_t length) noexcept : length_(length) {}

   mutable std::uint32_t references_ = 1;
   std::uint32_t length_;
   [[maybe_unused]] std::uint8_t reserved_[2] = {0, 0};
   char text_[2] = {}; // the first of the characters, which the block is made large enough for
};

inline String8::String8(const String8& other) noexcept : data_(other.data_) {
   if (data_ != nullptr) {
      data_->referencesInc();
   }
}

inline String8::~String8() {
   if (Data* const data = data_) { // most have been moved from
      data_ = nullptr;
      data->referencesDec();
   }
}

// The name of an entity or descriptor: a text with a type of its own. Activity thread only.
class VEL_EXPORT Name {
 public:
   using IteratorConst = String8::IteratorConst;

   Name() noexcept = default;
   Name(const char* text) : text_(text) {} // null counts as empty
   Name(std::string_view text) : text_(text) {}
   Name(const std::string& text) : text_(text) {}
   Name(String8 text) noexcept : text_(std::move(text)) {}
   // As format writes the pattern, a literal with one %d; but only once somebody asks for the text,
   // which of most names made for a number nobody does.
   static Name numbered(const char* pattern, int number) noexcept {
      Name name;
      name.pattern_ = pattern;
      name.number_ = number;
      return name;
   }

   const String8& text() const { // throws bad_alloc
      if (pattern_ != nullptr) {
         write();
      }
      return text_;
   }
   operator std::string_view() const { return text(); }
   const char* charPtr() const { return text().charPtr(); }
   unsigned length() const { return text().length(); }
   bool empty() const { return text().empty(); }
   IteratorConst begin() const { return text().begin(); }
   IteratorConst end() const { return text().end(); }

   friend bool operator==(const Name& a, const Name& b) { return a.text() == b.text(); }
   template <class Text>
      requires std::is_convertible_v<const Text&, std::string_view>
   friend bool operator==(const Name& a, const Text& b) {
      return std::string_view(a) == std::string_view(b);
   }

 private:
   void write() const;

   mutable String8 text_;
   mutable const char* pattern_ = nullptr; // null: the text is there
   int number_ = 0;
};

inline String8::String8(const Name& name) : String8(name.text()) {}

// Writes exactly the string's bytes, without padding or conversion.
VEL_EXPORT std::ostream& operator<<(std::ostream& stream, const String8& text);

// As printf; plain decimal whatever the locale is.
[[gnu::format(printf, 1, 2)]] VEL_EXPORT String8 format(const char* format, ...);

// Text in double quotes, with \" \\ \n and \xNN for what doesn't print; always parses back.
VEL_EXPORT String8 valueToStrep(const String8& value);

// Parses a string representation that begins at it and leaves it behind what was used: a quoted
// text, or bare text that doesn't begin with a quote, up to the end. The pointer only selects the
// overload. Throws RangeException for an ill-formed one; it stays where it was.
VEL_EXPORT String8 sequenceToValue(String8::IteratorConst& it, const String8::IteratorConst& end,
                                   String8*);

} // namespace Vel
