#include "tools/signature_report.hpp"

#include <openssl/objects.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>
#include <vector>

#include "foundation/strings.hpp"
#include "platform/file_io.hpp"
#include "platform/linux/code_signature.hpp"
#include "platform/linux/elf_section.hpp"
#include "platform/linux/openssl_objects.hpp"
#include "platform/property_list.hpp"

namespace qm::tools {
namespace {

Failure openSigned(const std::string& path, FileDescriptor& program, AppendedSignature& signature) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored))
    return path + ": " + (std::filesystem::exists(path, ignored) ? "is no regular file" : "no such file");
  program = openForReading(path.c_str());
  if (!program) return path + ": " + std::strerror(errno);
  const OSStatus status = readAppendedSignature(program.get(), signature);
  return status == kSecSuccess ? std::nullopt : Failure(path + ": " + statusText(status));
}

// The text that `print` writes.
template <class Print>
std::string printed(const Print& print) {
  const openssl::BioPtr target(BIO_new(BIO_s_mem()));
  if (target == nullptr) return {};
  print(target.get());
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(target.get(), &bytes);
  return length <= 0 ? std::string() : std::string(bytes, static_cast<std::size_t>(length));
}

std::string nameText(const X509_NAME* name) {
  // Backslash escapes for what a terminal would take for commands.
  return printed(
      [&](BIO* target) { X509_NAME_print_ex(target, name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB); });
}

std::string timeText(const ASN1_TIME* time) {
  return printed([&](BIO* target) { ASN1_TIME_print(target, time); });
}

std::string hashText(const X509* certificate) {
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  X509_digest(certificate, EVP_sha1(), hash, &length);
  return hexadecimal(hash, length);
}

std::string describeCertificates(CMS_ContentInfo* cms) {
  const openssl::CertificateStackPtr certificates(CMS_get1_certs(cms));
  std::string text;
  for (int i = 0; certificates != nullptr && i < sk_X509_num(certificates.get()); ++i) {
    const X509* certificate = sk_X509_value(certificates.get(), i);
    text += "Certificate: " + nameText(X509_get_subject_name(certificate)) + "\n";
    text += "  issued by: " + nameText(X509_get_issuer_name(certificate)) + "\n";
    text += "  valid: " + timeText(X509_get0_notBefore(certificate)) + " to " +
            timeText(X509_get0_notAfter(certificate)) + "\n";
    text += "  hash: H\"" + hashText(certificate) + "\"\n";
  }
  return text;
}

std::string signingTime(CMS_ContentInfo* cms) {
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms);
  if (signers == nullptr || sk_CMS_SignerInfo_num(signers) == 0) return {};
  const CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(signers, 0);
  const int index = CMS_signed_get_attr_by_NID(signer, NID_pkcs9_signingTime, -1);
  if (index < 0) return {};
  const ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(signer, index), 0);
  if (value == nullptr || (value->type != V_ASN1_UTCTIME && value->type != V_ASN1_GENERALIZEDTIME)) return {};
  return timeText(value->value.asn1_string);
}

std::string describeInfo(int program) {
  const std::optional<Data> section = readElfSection(program, kInfoPlistSection, kMaximumInfoPlistSize);
  if (!section) return "Info.plist: none\n";
  const std::optional<Value> list = parsePropertyList(section->bytes(), section->length());
  const Dictionary* info = list ? list->as<Dictionary>() : nullptr;
  if (info == nullptr) return "Info.plist: damaged\n";
  const auto text = [&](const char* key) {
    const std::string* value = find<std::string>(*info, key);
    return value == nullptr ? std::string("none") : *value;
  };
  return "Identifier: " + text("CFBundleIdentifier") + "\nVersion: " + text("CFBundleShortVersionString") +
         "\n";
}

bool writeFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  file.close();
  return !file.fail();
}

bool copyContent(int program, std::uint64_t length, const std::string& path) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  std::vector<char> buffer(256 * 1024);
  for (std::uint64_t position = 0; position < length;) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), length - position));
    const std::int64_t count = readAt(program, buffer.data(), wanted, static_cast<std::int64_t>(position));
    if (count <= 0) return false;
    file.write(buffer.data(), count);
    position += static_cast<std::uint64_t>(count);
  }
  file.close();
  return !file.fail();
}

}  // namespace

Failure describeSignature(const std::string& path, std::string& description) {
  FileDescriptor program;
  AppendedSignature signature;
  if (const Failure failure = openSigned(path, program, signature)) return failure;
  const unsigned char* position = signature.cms.data();
  const openssl::CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(signature.cms.size())));
  if (cms == nullptr) return path + ": " + statusText(kSecCSSignatureInvalid);
  description = "Program: " + path + "\n" + describeInfo(program.get());
  description += "Signed bytes: " + std::to_string(signature.contentLength) + "\n";
  description += "Signature bytes: " + std::to_string(signature.cms.size()) + "\n";
  if (const std::string time = signingTime(cms.get()); !time.empty())
    description += "Signed at: " + time + "\n";
  description += describeCertificates(cms.get());
  return std::nullopt;
}

Failure extractSignature(const std::string& path, const std::string& signaturePath,
                         const std::string& contentPath, std::uint64_t& contentLength) {
  FileDescriptor program;
  AppendedSignature signature;
  if (const Failure failure = openSigned(path, program, signature)) return failure;
  if (!writeFile(signaturePath, signature.cms)) return signaturePath + ": cannot be written";
  if (!contentPath.empty() && !copyContent(program.get(), signature.contentLength, contentPath))
    return contentPath + ": cannot be written";
  contentLength = signature.contentLength;
  return std::nullopt;
}

std::string statusText(OSStatus status) {
  switch (status) {
    case kSecSuccess:
      return "valid";
    case kSecCSUnsigned:
      return "not signed";
    case kSecCSSignatureFailed:
      return "changed after it was signed";
    case kSecCSSignatureUnsupported:
      return "signed in an unsupported way";
    case kSecCSSignatureInvalid:
      return "damaged signature";
    case kSecCSSignatureUntrusted:
      return "signed by somebody without a chain to an installed anchor";
    case kSecCSInfoPlistFailed:
      return "damaged Info.plist";
    case kSecCSReqFailed:
      return "does not meet the requirement";
    default:
      break;
  }
  if (status > kSecErrnoBase) return std::strerror(status - kSecErrnoBase);
  return "status " + std::to_string(status);
}

}  // namespace qm::tools
