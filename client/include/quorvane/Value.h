#pragma once

// An installed libquorvane has platform/Value.h itself here: values are written once for daemon and clients.
#include "platform/Value.h"
