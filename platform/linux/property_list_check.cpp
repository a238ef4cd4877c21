#include "platform/linux/property_list_check.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <optional>
#include <vector>

#include "foundation/strings.hpp"

namespace qm {
namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;
constexpr std::size_t kMinimumSize = kHeaderSize + 1 + 1 + kTrailerSize;
constexpr std::size_t kMaximumObjects = 262144;
constexpr std::size_t kMaximumContent = 64 * 1024 * 1024;
// A few bytes that refer to one long text over and over must not fill the memory: a file can carry thousands
// of such lists.
constexpr std::size_t kContentOfAnyList = 64 * 1024;
constexpr std::size_t kMaximumGrowth = 32;
constexpr std::size_t kIndentationOfLevel = 4;
// Seconds from 2001 that a date may have: far beyond "distant past" and "distant future".
constexpr double kMaximumDate = 1e12;
// Freeing a tree recurses in the library, whatever a scan of the text took for a comment.
constexpr std::size_t kMaximumXMLCollections = 8192;

enum class Kind : std::uint8_t { scalar, string, array, dictionary };

// One object: where its content begins, and how much of it there is.
struct Object {
  Kind kind = Kind::scalar;
  std::size_t content = 0;     // offset
  std::size_t length = 0;      // bytes
  std::size_t references = 0;  // of a collection; a dictionary has twice as many as entries
  bool isWide = false;         // a string of UTF-16 units
};

class BinaryCheck {
 public:
  BinaryCheck(const std::uint8_t* bytes, std::size_t length)
      : bytes_(bytes),
        length_(length),
        contentLimit_(std::min(kMaximumContent, kContentOfAnyList + kMaximumGrowth * length)) {}

  bool isSound() {
    if (!readTrailer()) return false;
    onPath_.assign(objectCount_, false);
    return isSoundObject(topObject_, 1);
  }

 private:
  // The big-endian number of 1 to 8 bytes at the offset, which lies in the file.
  std::uint64_t number(std::size_t offset, std::size_t size) const {
    std::uint64_t result = 0;
    for (std::size_t i = 0; i < size; ++i) result = result << 8 | bytes_[offset + i];
    return result;
  }

  // Whether `highest` can be written with that many bytes.
  static bool fits(std::uint64_t highest, std::size_t size) {
    return size == 8 || highest < 1ULL << (8 * size);
  }

  bool readTrailer() {
    if (length_ < kMinimumSize || std::string_view(reinterpret_cast<const char*>(bytes_), 7) != "bplist0")
      return false;
    const std::size_t trailer = length_ - kTrailerSize;
    offsetSize_ = bytes_[trailer + 6];
    referenceSize_ = bytes_[trailer + 7];
    const std::uint64_t count = number(trailer + 8, 8);
    const std::uint64_t top = number(trailer + 16, 8);
    const std::uint64_t table = number(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) return false;
    if (count < 1 || count > length_ || top >= count || table < kHeaderSize + 1 || table >= trailer)
      return false;
    if (!fits(table - 1, offsetSize_) || !fits(count - 1, referenceSize_)) return false;
    if (trailer - table != count * offsetSize_) return false;
    objectCount_ = static_cast<std::size_t>(count);
    topObject_ = static_cast<std::size_t>(top);
    table_ = static_cast<std::size_t>(table);
    return true;
  }

  // Whether that many bytes from the offset lie in front of the offset table.
  bool contains(std::size_t offset, std::uint64_t size) const {
    return offset <= table_ && size <= table_ - offset;
  }

  // The count in a marker's low half, or in the integer object that follows it; moves `position` behind it.
  std::optional<std::uint64_t> readCount(std::uint8_t marker, std::size_t& position) const {
    const std::uint8_t low = marker & 0x0F;
    if (low != 0x0F) return low;
    if (!contains(position, 1)) return std::nullopt;
    const std::uint8_t integer = bytes_[position];
    if (integer < 0x10 || integer > 0x13) return std::nullopt;
    const std::size_t size = 1U << (integer & 0x0F);
    if (!contains(position + 1, size)) return std::nullopt;
    const std::uint64_t count = number(position + 1, size);
    position += 1 + size;
    return count;
  }

  std::optional<Object> fixed(std::size_t position, std::size_t size) const {
    if (!contains(position, size)) return std::nullopt;
    return Object{Kind::scalar, position, size, 0};
  }

  // An object whose marker carries a count of units of that many bytes.
  std::optional<Object> counted(Kind kind, std::uint8_t marker, std::size_t position,
                                std::size_t unit) const {
    const std::optional<std::uint64_t> count = readCount(marker, position);
    // A count of no more than the file's length cannot overflow when multiplied.
    if (!count || *count > length_ || !contains(position, *count * unit)) return std::nullopt;
    Object object{kind, position, static_cast<std::size_t>(*count * unit), 0};
    object.isWide = kind == Kind::string && unit == 2;
    if (kind == Kind::array || kind == Kind::dictionary) object.references = object.length / referenceSize_;
    return object;
  }

  std::optional<Object> date(std::size_t position) const {
    const std::optional<Object> object = fixed(position, 8);
    if (!object) return std::nullopt;
    const double seconds = std::bit_cast<double>(number(position, 8));
    return std::isfinite(seconds) && std::fabs(seconds) <= kMaximumDate ? object : std::nullopt;
  }

  std::optional<Object> asciiString(std::uint8_t marker, std::size_t position) const {
    const std::optional<Object> object = counted(Kind::string, marker, position, 1);
    if (!object) return std::nullopt;
    const std::uint8_t* const begin = bytes_ + object->content;
    const bool isASCII =
        std::all_of(begin, begin + object->length, [](std::uint8_t byte) { return byte < 0x80; });
    return isASCII ? object : std::nullopt;
  }

  std::optional<Object> readObject(std::size_t index) const {
    const std::uint64_t offset = number(table_ + index * offsetSize_, offsetSize_);
    if (offset < kHeaderSize || offset >= table_) return std::nullopt;
    const std::uint8_t marker = bytes_[offset];
    const std::size_t position = static_cast<std::size_t>(offset) + 1;
    if (marker == 0x08 || marker == 0x09) return fixed(position, 0);
    if (marker >= 0x10 && marker <= 0x14) return fixed(position, 1U << (marker & 0x0F));
    if (marker == 0x22 || marker == 0x23) return fixed(position, 1U << (marker & 0x0F));
    if (marker == 0x33) return date(position);
    if (marker >= 0x80 && marker <= 0x83) return fixed(position, (marker & 0x0FU) + 1U);
    switch (marker >> 4) {
      case 0x4:
        return counted(Kind::scalar, marker, position, 1);
      case 0x5:
        return asciiString(marker, position);
      case 0x6:
        return counted(Kind::string, marker, position, 2);
      case 0xA:
      case 0xC:
        return counted(Kind::array, marker, position, referenceSize_);
      case 0xD:
        return counted(Kind::dictionary, marker, position, 2 * referenceSize_);
      default:
        return std::nullopt;
    }
  }

  bool isSoundObject(std::size_t index, int depth) {
    if (depth > kMaximumPropertyListDepth || onPath_[index] || ++objectsSeen_ > kMaximumObjects) return false;
    const std::optional<Object> object = readObject(index);
    if (!object) return false;
    contentSeen_ += object->length + kIndentationOfLevel * static_cast<std::size_t>(depth);
    if (contentSeen_ > contentLimit_) return false;
    if (object->references == 0) return true;
    onPath_[index] = true;
    const bool result = areSoundReferences(*object, depth);
    onPath_[index] = false;
    return result;
  }

  bool areSoundReferences(const Object& collection, int depth) {
    const std::size_t keys = collection.kind == Kind::dictionary ? collection.references / 2 : 0;
    for (std::size_t i = 0; i < collection.references; ++i) {
      const std::uint64_t target = number(collection.content + i * referenceSize_, referenceSize_);
      if (target >= objectCount_) return false;
      const auto index = static_cast<std::size_t>(target);
      if (i < keys && !isKey(index)) return false;
      if (!isSoundObject(index, depth + 1)) return false;
    }
    return true;
  }

  // A string without a NUL: the library gives keys as C strings only, and aborts over one that is cut.
  bool isKey(std::size_t index) const {
    const std::optional<Object> object = readObject(index);
    if (!object || object->kind != Kind::string) return false;
    const std::size_t unit = object->isWide ? 2 : 1;
    for (std::size_t i = 0; i < object->length; i += unit)
      if (number(object->content + i, unit) == 0) return false;
    return true;
  }

  const std::uint8_t* bytes_;
  std::size_t length_;
  std::size_t contentLimit_;
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::size_t objectCount_ = 0;
  std::size_t topObject_ = 0;
  std::size_t table_ = 0;
  std::vector<bool> onPath_;
  std::size_t objectsSeen_ = 0;
  std::size_t contentSeen_ = 0;
};

std::size_t countOccurrences(std::string_view text, std::string_view part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + part.size()))
    ++count;
  return count;
}

// The end of a section that starts here and is closed by the mark: comments, instructions, character data.
std::size_t endOf(std::string_view text, std::size_t position, std::string_view mark) {
  const std::size_t found = text.find(mark, position);
  return found == std::string_view::npos ? text.size() : found + mark.size();
}

bool isCollectionTag(std::string_view tag) {
  for (const std::string_view name : {std::string_view("array"), std::string_view("dict")})
    if (tag.starts_with(name)) return true;
  return false;
}

}  // namespace

bool isSoundBinaryPropertyList(const std::uint8_t* bytes, std::size_t length) {
  return length <= kMaximumPropertyListSize && BinaryCheck(bytes, length).isSound();
}

bool isSoundXMLPropertyList(std::string_view text) {
  if (text.size() > kMaximumPropertyListSize || text.find('\0') != std::string_view::npos ||
      !isValidUTF8(text) ||
      countOccurrences(text, "<array") + countOccurrences(text, "<dict") > kMaximumXMLCollections)
    return false;
  int depth = 0;
  std::size_t position = text.find('<');
  while (position != std::string_view::npos && position < text.size()) {
    const std::string_view rest = text.substr(position);
    std::size_t end = position + 1;
    if (rest.starts_with("<!--")) {
      end = endOf(text, position + 4, "-->");
    } else if (rest.starts_with("<![CDATA[")) {
      end = endOf(text, position, "]]>");
    } else if (rest.starts_with("<?")) {
      end = endOf(text, position, "?>");
    } else if (rest.starts_with("</")) {
      if (isCollectionTag(rest.substr(2))) --depth;
    } else if (isCollectionTag(rest.substr(1))) {
      end = endOf(text, position, ">");
      if (text[end - 2] != '/' && ++depth > kMaximumPropertyListDepth) return false;
    }
    position = text.find('<', end);
  }
  return true;
}

}  // namespace qm
