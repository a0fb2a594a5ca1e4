#include "mend_loop.h"

// Placeholder until the loop device code lands.
