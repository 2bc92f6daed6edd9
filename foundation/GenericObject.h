// An archived object shown as it was stored, for looking inside archives
// whose classes the program does not know.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Object.h"

namespace parlova {

// A class as an archive names it: name, version (typed streams only) and
// superclass chain.
class ArchivedClass final : public Object {
public:
  ArchivedClass(std::string name, std::optional<int64_t> version, std::shared_ptr<const ArchivedClass> superclass)
      : name_(std::move(name)), version_(version), superclass_(std::move(superclass)) {}
  std::string className() const override { return "Class"; }
  std::string description() const override;
  const std::string &name() const { return name_; }
  std::optional<int64_t> version() const { return version_; }
  const std::shared_ptr<const ArchivedClass> &superclass() const { return superclass_; }

private:
  std::string name_;
  std::optional<int64_t> version_;
  std::shared_ptr<const ArchivedClass> superclass_;
};

class GenericObject final : public Object {
public:
  // One stored field: a typed stream's group of values with its type
  // encodings, or a keyed archive's key with its value.
  struct Field {
    std::string label;
    std::vector<ObjectRef> values;
  };

  GenericObject(std::shared_ptr<const ArchivedClass> archivedClass, std::vector<Field> fields)
      : class_(std::move(archivedClass)), fields_(std::move(fields)) {}
  std::string className() const override { return class_ ? class_->name() : "?"; }
  const std::shared_ptr<const ArchivedClass> &archivedClass() const { return class_; }
  const std::vector<Field> &fields() const { return fields_; }

private:
  std::shared_ptr<const ArchivedClass> class_;
  std::vector<Field> fields_;
};

} // namespace parlova
