// The sample writer must not write with the code it is checked against.
#include "foundation/PropertyList.h"
