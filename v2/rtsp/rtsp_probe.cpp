// Placeholder until the probe lands: every rtsp:// source is relayed.
#include "v2/rtsp/rtsp.h"

int rtsp_probe() { return 1; }
