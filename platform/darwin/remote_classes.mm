#include "platform/darwin/remote_classes.hpp"

#import <objc/runtime.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "foundation/log.hpp"
#include "platform/darwin/foundation_value.hpp"

namespace {

qm::Log& log() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "remote");
  return log;
}

// The record class of each class that was made. Never destroyed: connections decode until the process ends.
class RecordClasses {
 public:
  static RecordClasses& shared() {
    static RecordClasses& its = *new RecordClasses;
    return its;
  }

  Class classFor(const qm::RecordClass& recordClass) {
    const std::lock_guard lock(mutex_);
    const auto found = byName_.find(recordClass.name);
    if (found != byName_.end()) return found->second;
    // Null when something else has the name: then it stays the other one, and records of this class do not
    // travel.
    Class made = objc_allocateClassPair([QMRemoteRecord class], recordClass.name.c_str(), 0);
    if (made == nil) {
      QM_LOG_FAULT(log(), "There is another class with the name %{public}s", recordClass.name);
    } else {
      objc_registerClassPair(made);
      byClass_.emplace((__bridge const void*)made, &recordClass);
    }
    byName_.emplace(recordClass.name, made);
    return made;
  }

  // Null for another class.
  const qm::RecordClass* recordClassOf(Class its) {
    const std::lock_guard lock(mutex_);
    const auto found = byClass_.find((__bridge const void*)its);
    return found == byClass_.end() ? nullptr : found->second;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, Class> byName_;
  std::map<const void*, const qm::RecordClass*> byClass_;
};

// The field's value. Nothing when there is none, or when it is not what the class allows: then the coder has
// the error.
std::optional<qm::Value> decodeField(NSCoder* coder, const qm::RecordField& field) {
  NSString* key = qm::stringFrom(field.key);
  if (![coder containsValueForKey:key]) return std::nullopt;
  switch (field.coding) {
    case qm::FieldCoding::boolean:
      return [coder decodeBoolForKey:key] != NO;
    case qm::FieldCoding::integer:
      return std::int64_t{[coder decodeInt64ForKey:key]};
    case qm::FieldCoding::object:
      break;
  }
  id object = [coder decodeObjectOfClasses:qm::remote::frameworkClasses(field.classes) forKey:key];
  if (object == nil) return std::nullopt;
  std::optional<qm::Value> value = qm::valueFrom(object, qm::OtherObjects::refused);
  if (value && (field.objectClass.empty() || qm::codedClassName(*value) == field.objectClass)) return value;
  NSString* text = [NSString stringWithFormat:@"value for key '%@' was of unexpected class '%@'", key,
                                              NSStringFromClass([object class])];
  [coder
      failWithError:[NSError errorWithDomain:NSCocoaErrorDomain
                                        code:NSCoderReadCorruptError
                                    userInfo:[NSDictionary dictionaryWithObject:text
                                                                         forKey:NSDebugDescriptionErrorKey]]];
  return std::nullopt;
}

}  // namespace

@implementation QMRemoteRecord {
  std::shared_ptr<const qm::Record> _record;
}

+ (BOOL)supportsSecureCoding {
  return YES;
}

- (instancetype)initWithRecord:(std::shared_ptr<const qm::Record>)record {
  self = [super init];
  if (self != nil) _record = std::move(record);
  return self;
}

- (qm::ObjectPtr)record {
  return _record;
}

- (void)encodeWithCoder:(NSCoder*)coder {
  const qm::Dictionary fields = _record->fields();
  for (const qm::RecordField& field : _record->recordClass().fields) {
    const qm::Value* value = qm::find(fields, field.key);
    if (value == nullptr) continue;
    NSString* key = qm::stringFrom(field.key);
    switch (field.coding) {
      case qm::FieldCoding::boolean:
        [coder encodeBool:value->integerValue() != 0 forKey:key];
        break;
      case qm::FieldCoding::integer: {
        const auto* large = value->as<std::uint64_t>();
        [coder encodeInt64:large == nullptr ? value->integerValue() : static_cast<std::int64_t>(*large)
                    forKey:key];
        break;
      }
      case qm::FieldCoding::object:
        [coder encodeObject:qm::objectFrom(*value) forKey:key];
        break;
    }
  }
}

- (instancetype)initWithCoder:(NSCoder*)coder {
  const qm::RecordClass* recordClass = RecordClasses::shared().recordClassOf([self class]);
  self = [super init];
  if (self == nil || recordClass == nullptr) return nil;
  qm::Dictionary fields;
  for (const qm::RecordField& field : recordClass->fields) {
    std::optional<qm::Value> value = decodeField(coder, field);
    if (coder.error != nil) return nil;
    if (value) fields.emplace(field.key, std::move(*value));
  }
  _record = std::static_pointer_cast<const qm::Record>(recordClass->make(fields));
  return self;
}

@end

namespace qm::remote {

Class classForRecords(const RecordClass& recordClass) {
  return RecordClasses::shared().classFor(recordClass);
}

QMRemoteRecord* objectForRecord(std::shared_ptr<const Record> record) {
  Class its = classForRecords(record->recordClass());
  return [[its alloc] initWithRecord:std::move(record)];
}

NSSet<Class>* frameworkClasses(const CodedClasses& classes) {
  NSMutableSet* result = [NSMutableSet set];
  for (const CodedClass& coded : classes) {
    Class its =
        coded.record != nullptr ? classForRecords(*coded.record) : NSClassFromString(stringFrom(coded.name));
    // A class that this program does not have stays out: what holds an object of it does not decode.
    if (its != nil) [result addObject:its];
  }
  return result;
}

}  // namespace qm::remote
