#include <Vel/Exception.h>
#include <Vel/VelType.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <new>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Vel {

namespace {

using Registry = std::vector<const VelType*>;

// Filled by static initialisers, in whatever order these run, and used until the very end: so it
// is made on first use and never destroyed.
Registry& registry() {
   alignas(Registry) static std::byte storage[sizeof(Registry)];
   static auto* const types = ::new (static_cast<void*>(storage)) Registry;
   return *types;
}

bool isWordCharacter(char character) {
   const char lower = static_cast<char>(character | 0x20);
   return (lower >= 'a' && lower <= 'z') || (character >= '0' && character <= '9') ||
          character == '_';
}

[[noreturn]] void throwNoValue(std::string_view input, const VelType& type) {
   const std::string message =
      "no value " + std::string(input) + " in the enumeration " + type.name;
   throwRangeException(message.c_str());
}

const VelAttr* findValue(const VelType& type, std::uintptr_t number) {
   const VelAttr* const end = type.attrs + type.attrCount;
   const VelAttr* const found =
      std::find_if(type.attrs, end, [number](const VelAttr& value) { return value.id == number; });
   return found != end ? found : nullptr;
}

const VelAttr* findValue(const VelType& type, std::string_view name) {
   const VelAttr* const end = type.attrs + type.attrCount;
   const VelAttr* const found =
      std::find_if(type.attrs, end, [name](const VelAttr& value) { return value.name == name; });
   return found != end ? found : nullptr;
}

} // namespace

void typeNodeIs(const VelType* type) { registry().push_back(type); }

const VelType* typeNode(std::string_view name) {
   static constexpr std::pair<std::string_view, std::string_view> otherNames[] = {
      {"S32", "int"}, {"U32", "unsigned int"}, {"Vel::String8", "Vel::String"}};
   for (const auto& [other, registered] : otherNames) {
      name = name == other ? registered : name;
   }
   const Registry& types = registry();
   const auto found = std::find_if(types.rbegin(), types.rend(),
                                   [name](const VelType* type) { return type->name == name; });
   return found != types.rend() ? *found : nullptr;
}

template <class T> T EnumType<T>::instance(T number, const VelType& type) {
   if (findValue(type, number) == nullptr) {
      throwNoValue(std::to_string(number), type);
   }
   return number;
}

template <class T> T EnumType<T>::instance(const char* name, const VelType& type) {
   const VelAttr* const value = findValue(type, std::string_view(name));
   if (value == nullptr) {
      throwNoValue(Vel::valueToStrep(String8(name)), type);
   }
   return static_cast<T>(value->id);
}

template <class T> String8 EnumType<T>::stringValue(T value, const VelType& type) {
   const VelAttr* const known = findValue(type, value);
   return known != nullptr ? String8(known->name) : String8(std::to_string(value));
}

template <class T>
std::ostream& EnumType<T>::operatorLessLess(std::ostream& stream, T value, const VelType& type) {
   const VelAttr* const known = findValue(type, value);
   return known != nullptr ? stream << known->name : stream << value;
}

template <class T>
T EnumType<T>::sequenceToValue(String8::IteratorConst& it, const String8::IteratorConst& end,
                               const VelType& type) {
   const String8::IteratorConst wordEnd = std::find_if_not(it, end, isWordCharacter);
   const std::string_view word(it, static_cast<std::size_t>(wordEnd - it));
   if (const VelAttr* const value = findValue(type, word)) {
      it = wordEnd;
      return static_cast<T>(value->id);
   }
   T number = 0;
   const auto parsed = std::from_chars(it, wordEnd, number);
   if (parsed.ec != std::errc() || parsed.ptr != wordEnd) {
      throwNoValue(Vel::valueToStrep(String8(word)), type);
   }
   it = wordEnd;
   return number;
}

template struct EnumType<unsigned>;

} // namespace Vel
