#include "platform/code_signing.hpp"

#import <Security/Security.h>

#include "platform/darwin/foundation_value.hpp"

namespace qm {
namespace {

// Takes over one reference.
template <class Reference>
class Owned {
 public:
  explicit Owned(Reference reference) : reference_(reference) {}
  ~Owned() {
    if (reference_ != nullptr) CFRelease(reference_);
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;

  Reference get() const { return reference_; }

 private:
  const Reference reference_;
};

}  // namespace

class SecCode {
 public:
  explicit SecCode(SecCodeRef reference) : code(reference) {}
  const Owned<SecCodeRef> code;
};

class SecRequirement {
 public:
  explicit SecRequirement(SecRequirementRef reference) : requirement(reference) {}
  const Owned<SecRequirementRef> requirement;
};

OSStatus copyGuestWithAuditToken(const AuditToken& token, SecCodePtr& code) {
  code = nullptr;
  @autoreleasepool {
    NSData* words = [NSData dataWithBytes:token.words.data() length:sizeof token.words];
    NSDictionary* attributes =
        [NSDictionary dictionaryWithObject:words forKey:(__bridge NSString*)kSecGuestAttributeAudit];
    SecCodeRef guest = nullptr;
    const OSStatus status = SecCodeCopyGuestWithAttributes(nullptr, (__bridge CFDictionaryRef)attributes,
                                                           kSecCSDefaultFlags, &guest);
    if (status == kSecSuccess) code = std::make_shared<const SecCode>(guest);
    return status;
  }
}

OSStatus createRequirementWithString(const std::string& text, SecRequirementPtr& requirement) {
  requirement = nullptr;
  @autoreleasepool {
    SecRequirementRef created = nullptr;
    const OSStatus status =
        SecRequirementCreateWithString((__bridge CFStringRef)stringFrom(text), kSecCSDefaultFlags, &created);
    if (status == kSecSuccess) requirement = std::make_shared<const SecRequirement>(created);
    return status;
  }
}

OSStatus checkValidityWithErrors(const SecCodePtr& code, const SecRequirementPtr& requirement,
                                 ErrorPtr* error) {
  @autoreleasepool {
    OSStatus status = kSecCSObjectRequired;
    CFErrorRef failure = nullptr;
    if (code != nullptr)
      status = SecStaticCodeCheckValidityWithErrors(
          code->code.get(), kSecCSDefaultFlags,
          requirement == nullptr ? nullptr : requirement->requirement.get(), &failure);
    const Owned<CFErrorRef> owned(failure);
    if (status != kSecSuccess)
      setError(error, failure != nullptr ? errorFrom((__bridge NSError*)failure)
                                         : makeError(kOSStatusErrorDomain, status));
    return status;
  }
}

}  // namespace qm
