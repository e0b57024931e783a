// The line split moved beneath the reader, to the library's string helpers, where the drop-file
// readers share it; this name stays for the reader files that still include it.
#pragma once

#include "stringutils/textlines.h"
