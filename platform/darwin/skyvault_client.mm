// The client of the Skyvault client framework.
//
// The framework is closed and is not built against, at most linked weakly (QM_SKYVAULT_FRAMEWORK): where it
// is not loaded there is no class of its client, and no client is made. Its selectors and the fields of its
// answers are known. What is not known is taken for likely here, and nowhere else: the widths of numbers, and
// that the constants of the verdicts are exported under their names.
#include <dlfcn.h>
#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include "foundation/log.hpp"
#include "foundation/object_description.hpp"
#include "platform/SVKSkyvaultServiceClientProtocol.hpp"
#include "platform/darwin/foundation_value.hpp"
#include "platform/darwin/raised_exception.hpp"
#include "platform/queue.hpp"

@protocol SVKSafetyVerdictFields
@property(readonly) NSString* value;
@property(readonly) NSString* infectionName;
@end

@protocol SVKCategoryFields
@property(readonly) NSString* name;
@property(readonly) BOOL value;
@end

@protocol SVKResponseFields
@property(readonly) id<SVKSafetyVerdictFields> safetyVerdict;
@property(readonly) NSUInteger options;
@property(readonly) NSUInteger ttl;
@property(readonly) NSInteger prevalence;
@property(readonly) NSArray* categories;
@end

using FrameworkCompletion = void (^)(id<SVKResponseFields> response, NSError* error);

@protocol SVKClientCalls
- (id)initWithMachServiceName:(NSString*)machServiceName;
- (void)queryReputationForFileHash:(NSString*)sha256
                           timeout:(NSUInteger)milliseconds
                        completion:(FrameworkCompletion)completion;
- (void)analyzeMetadata:(NSDictionary*)metadata
                timeout:(NSUInteger)milliseconds
             completion:(FrameworkCompletion)completion;
- (void)analyzeFileHandle:(NSFileHandle*)fileHandle
                 metadata:(NSDictionary*)metadata
                  timeout:(NSUInteger)milliseconds
               completion:(FrameworkCompletion)completion;
- (void)queryReputationForURL:(NSURL*)url
                   categories:(NSArray*)categories
                     metadata:(NSDictionary*)metadata
                      timeout:(NSUInteger)milliseconds
                   completion:(FrameworkCompletion)completion;
@end

namespace qm {
namespace {

using skyvault::ErrorCode;

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "SVKSkyvaultServiceClient");
  return log;
}

// The framework keeps the time-outs itself; behind this much more they are kept here.
constexpr std::chrono::seconds kGrace{5};

struct VerdictConstant {
  const char* symbol;  // the framework's
  const char* value;   // ours
};
constexpr VerdictConstant kVerdicts[] = {
    {"SVKSkyvaultSafetyVerdictValueKnownClean", SVKSkyvaultSafetyVerdictValueKnownClean},
    {"SVKSkyvaultSafetyVerdictValueUndetected", SVKSkyvaultSafetyVerdictValueUndetected},
    {"SVKSkyvaultSafetyVerdictValuePU", SVKSkyvaultSafetyVerdictValuePU},
    {"SVKSkyvaultSafetyVerdictValueUnwanted", SVKSkyvaultSafetyVerdictValueUnwanted},
    {"SVKSkyvaultSafetyVerdictValueMalicious", SVKSkyvaultSafetyVerdictValueMalicious},
    {"SVKSkyvaultSafetyVerdictValueUnknown", SVKSkyvaultSafetyVerdictValueUnknown}};

// Our text for the framework's; a text that is none of its constants stays as it is.
std::string verdictValue(NSString* value) {
  for (const VerdictConstant& constant : kVerdicts) {
    const auto* exported = static_cast<const __unsafe_unretained id*>(::dlsym(RTLD_DEFAULT, constant.symbol));
    if (exported != nullptr && [value isEqualToString:*exported]) return constant.value;
  }
  return textFrom(value);
}

std::vector<SVKSkyvaultCategory> categoriesFrom(NSArray* categories) {
  std::vector<SVKSkyvaultCategory> result;
  for (id<SVKCategoryFields> category in categories)
    result.push_back({.name = textFrom(category.name), .value = category.value != NO});
  return result;
}

std::shared_ptr<const SVKSkyvaultResponse> responseFrom(id<SVKResponseFields> response) {
  if (response == nil) return nullptr;
  auto result = std::make_shared<SVKSkyvaultResponse>();
  id<SVKSafetyVerdictFields> verdict = response.safetyVerdict;
  result->safetyVerdict.value = verdictValue(verdict.value);
  if (verdict.infectionName != nil) result->safetyVerdict.infectionName = textFrom(verdict.infectionName);
  result->options = response.options;
  result->ttl = response.ttl;
  result->prevalence = response.prevalence;
  result->categories = categoriesFrom(response.categories);
  return result;
}

NSDictionary* dictionaryFrom(const Dictionary& metadata) {
  return objectFrom(Value(metadata));
}

NSUInteger wholeMilliseconds(std::chrono::milliseconds timeout) {
  return static_cast<NSUInteger>(std::max<std::chrono::milliseconds::rep>(timeout.count(), 0));
}

// The completion of one call. Whatever the framework does, it is called once, and on a queue: neither an
// exception of the framework's reaches it, nor one of its own the framework.
class Answer {
 public:
  // Keeps the handle until it was given.
  Answer(SVKSkyvaultServiceClientProtocol::Completion completion, std::shared_ptr<FileHandle> handle)
      : completion_(std::move(completion)), handle_(std::move(handle)) {}
  ~Answer() {
    fail(ErrorCode::connectionLost, "The Skyvault client framework has let go of a call without an answer");
  }
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;

  void give(id<SVKResponseFields> response, NSError* error) {
    std::shared_ptr<const SVKSkyvaultResponse> converted;
    ErrorPtr failure;
    const std::optional<std::string> raised = reasonRaisedBy([&] {
      failure = errorFrom(error);
      converted = responseFrom(response);
    });
    if (raised)
      return fail(ErrorCode::malformedResponse,
                  "An answer of the Skyvault client framework cannot be read: " + *raised);
    if (converted == nullptr && failure == nullptr)
      return fail(ErrorCode::malformedResponse,
                  "The Skyvault client framework gives neither a response nor an error");
    finish(std::move(converted), std::move(failure));
  }
  void fail(ErrorCode code, const std::string& reason) {
    if (isGiven_) return;
    QM_LOG_ERROR(log(), "%{public}s", reason);
    finish(nullptr, makeError(skyvault::kErrorDomain, static_cast<std::int64_t>(code),
                              {{kLocalizedDescriptionKey, reason}}));
  }
  void finish(std::shared_ptr<const SVKSkyvaultResponse> response, ErrorPtr error) {
    if (isGiven_.exchange(true)) return;
    Queue::global().async([completion = std::exchange(completion_, nullptr),
                           handle = std::exchange(handle_, nullptr), response = std::move(response),
                           error = std::move(error)] { completion(response, error); });
  }

 private:
  SVKSkyvaultServiceClientProtocol::Completion completion_;
  std::shared_ptr<FileHandle> handle_;
  std::atomic<bool> isGiven_{false};
};

class FrameworkClient final : public SVKSkyvaultServiceClientProtocol {
 public:
  explicit FrameworkClient(id<SVKClientCalls> client) : client_(client) {}

  void queryReputationForFileHash(const std::string& sha256Hex, std::chrono::milliseconds timeout,
                                  Completion completion) override {
    call(std::make_shared<Answer>(std::move(completion), nullptr), timeout,
         [&](FrameworkCompletion answered) {
           [client_ queryReputationForFileHash:stringFrom(sha256Hex)
                                       timeout:wholeMilliseconds(timeout)
                                    completion:answered];
         });
  }

  void analyzeMetadata(const Dictionary& metadata, std::chrono::milliseconds timeout,
                       Completion completion) override {
    call(std::make_shared<Answer>(std::move(completion), nullptr), timeout,
         [&](FrameworkCompletion answered) {
           [client_ analyzeMetadata:dictionaryFrom(metadata)
                            timeout:wholeMilliseconds(timeout)
                         completion:answered];
         });
  }

  void analyzeFileHandle(std::shared_ptr<FileHandle> fileHandle, const Dictionary& metadata,
                         std::chrono::milliseconds timeout, Completion completion) override {
    const auto answer = std::make_shared<Answer>(std::move(completion), fileHandle);
    // With a descriptor of its own: the framework may keep the handle longer than we keep ours.
    NSFileHandle* handle = nil;
    if (fileHandle != nullptr) {
      const int own = ::fcntl(fileHandle->fileDescriptor(), F_DUPFD_CLOEXEC, 0);
      if (own < 0)
        return answer->fail(ErrorCode::unreadableSample,
                            "The sample cannot be passed on: " + systemErrorText(errno) + ".");
      handle = [[NSFileHandle alloc] initWithFileDescriptor:own closeOnDealloc:YES];
    }
    call(answer, timeout, [&](FrameworkCompletion answered) {
      [client_ analyzeFileHandle:handle
                        metadata:dictionaryFrom(metadata)
                         timeout:wholeMilliseconds(timeout)
                      completion:answered];
    });
  }

  void queryReputationForURL(const URL& url, const std::optional<std::vector<std::string>>& categories,
                             const std::optional<Dictionary>& metadata, std::chrono::milliseconds timeout,
                             Completion completion) override {
    call(std::make_shared<Answer>(std::move(completion), nullptr), timeout,
         [&](FrameworkCompletion answered) {
           const Array names = categories ? Array(categories->begin(), categories->end()) : Array();
           [client_ queryReputationForURL:[NSURL URLWithString:stringFrom(url.absoluteString())
                                              encodingInvalidCharacters:NO]
                               categories:categories ? objectFrom(Value(names)) : nil
                                 metadata:metadata ? dictionaryFrom(*metadata) : nil
                                  timeout:wholeMilliseconds(timeout)
                               completion:answered];
         });
  }

  std::string description() const override { return objectDescription("SVKSkyvaultServiceClient", this); }

 private:
  template <class FrameworkCall>
  static void call(const std::shared_ptr<Answer>& answer, std::chrono::milliseconds timeout,
                   const FrameworkCall& frameworkCall) {
    Queue::global().after(timeout + kGrace, [weak = std::weak_ptr(answer)] {
      if (const auto waiting = weak.lock())
        waiting->fail(ErrorCode::timedOut,
                      "The Skyvault client framework has let the time-out pass without an answer");
    });
    const std::shared_ptr<Answer> kept = answer;
    const FrameworkCompletion answered = ^(id<SVKResponseFields> response, NSError* error) {
      kept->give(response, error);
    };
    if (const std::optional<std::string> raised = reasonRaisedBy([&] { frameworkCall(answered); }))
      answer->fail(ErrorCode::invalidRequest,
                   "The Skyvault client framework does not take a call: " + *raised);
  }

  const id<SVKClientCalls> client_;
};

}  // namespace

std::shared_ptr<SVKSkyvaultServiceClientProtocol> createSkyvaultServiceClient(
    const std::string& machServiceName, const std::string& /*agentProgram*/) {
  @autoreleasepool {
    Class framework = NSClassFromString(@"SVKSkyvaultServiceClient");
    if (framework == nil) {
      QM_LOG_ERROR(log(), "The Skyvault client framework is not loaded");
      return nullptr;
    }
    id<SVKClientCalls> client = nil;
    if (const std::optional<std::string> raised = reasonRaisedBy([&] {
          client = [static_cast<id<SVKClientCalls>>([framework alloc])
              initWithMachServiceName:stringFrom(machServiceName)];
        }))
      QM_LOG_ERROR(log(), "The Skyvault client framework makes no client: %{public}s", *raised);
    return client == nil ? nullptr : std::make_shared<FrameworkClient>(client);
  }
}

}  // namespace qm
