// An object of a class of its own inside a Value: what is neither a property-list value nor an error, such as
// a record, a URL or an endpoint. Immutable once it is in a value.
#pragma once

#include <memory>
#include <string>

namespace qm {

class Object {
 public:
  virtual ~Object() = default;

  // The class's name as it travels.
  virtual std::string className() const = 0;
  virtual std::string description() const = 0;
  // False for an object of another class.
  virtual bool isEqual(const Object& other) const = 0;

 protected:
  Object() = default;
  Object(const Object&) = default;
  Object& operator=(const Object&) = default;
};

// Null when there is no object.
using ObjectPtr = std::shared_ptr<const Object>;

}  // namespace qm
