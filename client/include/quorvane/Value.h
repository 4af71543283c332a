#pragma once

// An installed libquorvane has platform/value/Value.h itself here: values are written once for daemon and
// clients.
#include "platform/value/Value.h"
