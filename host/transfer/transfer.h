#pragma once

// All that moves the content of whole disks, for hosts that want it in one line.
#include "host/transfer/disk_conversion.h" // IWYU pragma: export
#include "host/transfer/disk_flattening.h" // IWYU pragma: export
#include "host/transfer/exact_size.h"      // IWYU pragma: export
#include "host/transfer/raw_export.h"      // IWYU pragma: export
#include "host/transfer/raw_import.h"      // IWYU pragma: export
#include "host/transfer/whole_reading.h"   // IWYU pragma: export
