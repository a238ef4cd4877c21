// Records as objects that travel in remote calls. For sources in Objective-C++.
#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "platform/secure_coding.hpp"

// The base of the records' classes. They are made at run time, one for each record class of the product and
// under its name, and code the fields that it lists.
@interface QMRemoteRecord : NSObject <NSSecureCoding>
- (qm::ObjectPtr)record;
@end

namespace qm::remote {

// The class for the record class, made when it is first asked for; nil when another class has the name. Any
// thread.
Class classForRecords(const RecordClass& recordClass);
// Nil when another class has the name.
QMRemoteRecord* objectForRecord(std::shared_ptr<const Record> record);
// Those of the classes that there are here.
NSSet<Class>* frameworkClasses(const CodedClasses& classes);

}  // namespace qm::remote
