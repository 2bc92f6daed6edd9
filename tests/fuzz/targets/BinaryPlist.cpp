// Our bounds-checked view of binary property lists: every object read.
#include "archiving/BinaryPlistView.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto view = parlova::BinaryPlistView::open({data, size});
  if (!view)
    return 0;
  using Type = parlova::BinaryPlistView::Type;
  for (uint64_t ref = 0; ref < view->objectCount() && ref < 4096; ++ref) {
    const auto entry = view->describe(ref);
    view->boolean(ref), view->integer(ref), view->real(ref), view->data(ref), view->string(ref);
    if (entry.type == Type::Array || entry.type == Type::Set)
      for (uint64_t i = 0; i < entry.length && i < 64; ++i)
        view->element(entry, i);
    if (entry.type == Type::Dictionary) {
      for (uint64_t i = 0; i < entry.length && i < 64; ++i)
        view->keyAt(entry, i), view->valueAt(entry, i);
      view->valueForKey(entry, "$objects");
    }
  }
  return 0;
}
