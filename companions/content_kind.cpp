#include "companions/content_kind.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <vector>

#include "foundation/strings.hpp"

namespace qm {

namespace {

using namespace std::string_view_literals;

struct Mark {
  std::string_view bytes;
  ContentKind kind;
};

// Marks at the very beginning of a file, from the formats' own descriptions.
constexpr std::array kMarks = {
    Mark{"\x7f\x45LF"sv, ContentKind::program},        // ELF
    Mark{"\xce\xfa\xed\xfe"sv, ContentKind::program},  // Mach-O, 32 bits, little-endian
    Mark{"\xcf\xfa\xed\xfe"sv, ContentKind::program},  // Mach-O, 64 bits, little-endian
    Mark{"\xfe\xed\xfa\xce"sv, ContentKind::program},  // Mach-O, 32 bits, big-endian
    Mark{"\xfe\xed\xfa\xcf"sv, ContentKind::program},  // Mach-O, 64 bits, big-endian
    Mark{"\xca\xfe\xba\xbe"sv, ContentKind::program},  // Mach-O for several processors; Java class
    Mark{"\xca\xfe\xba\xbf"sv, ContentKind::program},  // Mach-O for several processors, 64-bit offsets
    Mark{"MZ"sv, ContentKind::program},                // PE and DOS programs
    Mark{"\0asm"sv, ContentKind::program},             // WebAssembly
    Mark{"dex\n"sv, ContentKind::program},             // Dalvik
    Mark{"X5O!P%@AP"sv, ContentKind::program},  // the standard test file: a DOS program without a header
    Mark{"L\0\0\0\x01\x14\x02\0"sv, ContentKind::program},  // shell link

    Mark{"#!"sv, ContentKind::script},
    Mark{"\xef\xbb\xbf#!"sv, ContentKind::script},
    Mark{"FasdUAS "sv, ContentKind::script},  // compiled AppleScript
    Mark{"<?php"sv, ContentKind::script},
    Mark{"<script"sv, ContentKind::script},
    Mark{"@echo off"sv, ContentKind::script},

    Mark{"PK\x03\x04"sv, ContentKind::archive},  // ZIP, also office documents, JAR and APK
    Mark{"PK\x05\x06"sv, ContentKind::archive},  // ZIP without a file
    Mark{"PK\x07\x08"sv, ContentKind::archive},  // ZIP in several parts
    Mark{"\x1f\x8b"sv, ContentKind::archive},    // gzip
    Mark{"\x1f\x9d"sv, ContentKind::archive},    // compress
    Mark{"BZh"sv, ContentKind::archive},
    Mark{"\xfd"
         "7zXZ\0"sv,
         ContentKind::archive},
    Mark{"\x28\xb5\x2f\xfd"sv, ContentKind::archive},  // Zstandard
    Mark{"\x04\x22\x4d\x18"sv, ContentKind::archive},  // LZ4
    Mark{"7z\xbc\xaf\x27\x1c"sv, ContentKind::archive},
    Mark{"Rar!\x1a\x07"sv, ContentKind::archive},
    Mark{"MSCF"sv, ContentKind::archive},              // Cabinet
    Mark{"xar!"sv, ContentKind::archive},              // macOS installer packages
    Mark{"!<arch>\n"sv, ContentKind::archive},         // ar, Debian packages
    Mark{"\xed\xab\xee\xdb"sv, ContentKind::archive},  // RPM
    Mark{"070701"sv, ContentKind::archive},            // cpio

    Mark{"%PDF-"sv, ContentKind::document},
    Mark{"\xef\xbb\xbf%PDF-"sv, ContentKind::document},
    Mark{"\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1"sv, ContentKind::document},  // OLE: older office documents, MSI
    Mark{"{\\rtf"sv, ContentKind::document},
    Mark{"ITSF"sv, ContentKind::document},              // compiled help
    Mark{"\xe4\x52\x5c\x7b"sv, ContentKind::document},  // OneNote
};

// Scripts without a mark, by the extension of their name.
constexpr std::array kScriptExtensions = {"applescript"sv, "bat"sv, "cmd"sv, "command"sv, "hta"sv,  "js"sv,
                                          "jse"sv,         "php"sv, "pl"sv,  "ps1"sv,     "psm1"sv, "py"sv,
                                          "rb"sv,          "sh"sv,  "vbe"sv, "vbs"sv,     "wsf"sv};

// Bytes that a text may begin with, in any encoding that extends ASCII.
bool looksLikeText(std::string_view bytes) {
  return !bytes.empty() && std::all_of(bytes.begin(), bytes.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 ? byte != 0x7f : byte == '\t' || byte == '\n' || byte == '\r' || byte == '\f';
  });
}

int base64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  return c == '+' ? 62 : c == '/' ? 63 : -1;
}

// The bytes of a Base64 text (RFC 4648, section 4) up to its padding; nothing when another character stands
// in it.
std::optional<std::string> decodeBase64(std::string_view text) {
  std::string bytes;
  std::uint32_t bits = 0;
  int count = 0;
  for (const char c : text) {
    if (c == '=') break;
    const int digit = base64Digit(c);
    if (digit < 0) return std::nullopt;
    bits = (bits << 6 | static_cast<std::uint32_t>(digit)) & 0xffffff;
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes += static_cast<char>(bits >> count & 0xff);
  }
  return bytes;
}

// More says nothing about the beginning of a file.
constexpr std::size_t kMaximumMagicText = 1024;

}  // namespace

const char* name(ContentKind kind) {
  switch (kind) {
    case ContentKind::program:
      return "program";
    case ContentKind::script:
      return "script";
    case ContentKind::archive:
      return "archive";
    case ContentKind::document:
      return "document";
    case ContentKind::other:
      break;
  }
  return "other";
}

ContentKind contentKindOfMagic(const void* bytes, std::size_t length) {
  const std::string_view content(static_cast<const char*>(bytes), length);
  const auto mark = std::find_if(kMarks.begin(), kMarks.end(),
                                 [&](const Mark& each) { return content.starts_with(each.bytes); });
  return mark == kMarks.end() ? ContentKind::other : mark->kind;
}

ContentKind contentKindOfTextNamed(std::string_view fileName) {
  const std::string extension = asciiLowercase(pathExtension(fileName));
  const bool isScript =
      std::find(kScriptExtensions.begin(), kScriptExtensions.end(), extension) != kScriptExtensions.end();
  return isScript ? ContentKind::script : ContentKind::other;
}

ContentKind contentKindFromMetadata(const Dictionary& metadata) {
  const auto* magic = find<std::string>(metadata, "magic_bytes");
  if (magic == nullptr || magic->size() > kMaximumMagicText) return ContentKind::other;
  const std::optional<std::string> bytes = decodeBase64(*magic);
  if (!bytes) return ContentKind::other;
  const ContentKind kind = contentKindOfMagic(bytes->data(), bytes->size());
  if (kind != ContentKind::other) return kind;
  const auto* fileName = find<std::string>(metadata, "file_name");
  return fileName != nullptr && looksLikeText(*bytes) ? contentKindOfTextNamed(*fileName)
                                                      : ContentKind::other;
}

}  // namespace qm
