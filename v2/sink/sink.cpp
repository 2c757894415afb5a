#include "v2/sink/sink.h"
