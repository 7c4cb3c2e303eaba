#pragma once

#include "compressors/miniz_compressor.h"
#include "compressors/zlib_compressor.h"
