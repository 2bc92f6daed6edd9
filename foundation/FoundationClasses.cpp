#include "foundation/FoundationClasses.h"

#include <unordered_map>

namespace parlova {

FoundationClass foundationClassNamed(std::string_view name) {
  static const std::unordered_map<std::string_view, FoundationClass> kClasses = {
      {"NSString", FoundationClass::String},
      {"NSMutableString", FoundationClass::String},
      {"NSArray", FoundationClass::Array},
      {"NSMutableArray", FoundationClass::Array},
      {"NSSet", FoundationClass::Array},
      {"NSMutableSet", FoundationClass::Array},
      {"NSOrderedSet", FoundationClass::OrderedSet},
      {"NSMutableOrderedSet", FoundationClass::OrderedSet},
      {"NSDictionary", FoundationClass::Dictionary},
      {"NSMutableDictionary", FoundationClass::Dictionary},
      {"NSNumber", FoundationClass::Number},
      {"NSValue", FoundationClass::Number},
      {"NSData", FoundationClass::Data},
      {"NSMutableData", FoundationClass::Data},
      {"NSDate", FoundationClass::Date},
      {"NSCalendarDate", FoundationClass::Date},
      {"NSURL", FoundationClass::URL},
      {"NSAttributedString", FoundationClass::AttributedString},
      {"NSMutableAttributedString", FoundationClass::AttributedString},
      {"NSFont", FoundationClass::Font},
      {"NSColor", FoundationClass::Color},
      {"NSTextAttachment", FoundationClass::TextAttachment},
      {"NSFileWrapper", FoundationClass::FileWrapper}};
  const auto known = kClasses.find(name);
  return known == kClasses.end() ? FoundationClass::None : known->second;
}

} // namespace parlova
