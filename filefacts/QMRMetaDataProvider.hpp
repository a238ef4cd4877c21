// Collects what travels to the backends about a file beside its hashes: times and extended attributes, as
// text where they can be. Used by the request handler. No failure is a failure of the whole: what cannot be
// read is left out and logged. Any thread.
#pragma once

#include "foundation/value.hpp"

class QMRMetaDataProvider {
 public:
  QMRMetaDataProvider() = delete;

  // "created", "accessed" and "modified" (signed numbers, seconds since 1970), all or none of them, and
  // "attributes" (the records below) when there are any. A path wins over a descriptor, which is then not
  // used at all.
  static qm::Dictionary fileInfoForPath(const char* path);
  static qm::Dictionary fileInfoForFiledescriptor(int descriptor);
  static qm::Dictionary fileInfoForPath(const char* path, int descriptor);

  // A record for each extended attribute with a value, in the order of the file system's list: "attribute",
  // its name, and "value". Text is text up to its first NUL, left out when it is not UTF-8. A binary property
  // list is a string for an array (the members, joined with ";") and a dictionary (its description without
  // newlines and spaces), else the object in it.
  static qm::Array extendedAttributesForPath(const char* path, int descriptor);
};
