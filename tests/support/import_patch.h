#include "support/gates.h"
