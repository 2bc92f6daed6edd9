// The root of every object a transcript archive decodes into.
#pragma once

#include <memory>
#include <string>

namespace parlova {

class Object {
public:
  virtual ~Object() = default;

  virtual std::string className() const = 0;

  // Text in the style of Foundation's description (property-list like).
  virtual std::string description() const;

protected:
  Object() = default;
  Object(const Object &) = default;
  Object &operator=(const Object &) = default;
};

// Decoded graphs share objects the way the archive shares them, so one
// archived object decoded twice is the same object.
using ObjectRef = std::shared_ptr<const Object>;

template <class T> std::shared_ptr<const T> objectAs(const ObjectRef &object) {
  return std::dynamic_pointer_cast<const T>(object);
}

// Stands in for an archived class nobody here knows: kept, never used.
class InertObject final : public Object {
public:
  explicit InertObject(std::string archivedClassName)
      : archivedClassName_(std::move(archivedClassName)) {}
  std::string className() const override { return archivedClassName_; }

private:
  std::string archivedClassName_;
};

} // namespace parlova
