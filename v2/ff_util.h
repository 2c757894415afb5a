// FFmpeg helpers shared by the driver's stages, and the few version guards.
#pragma once

#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

// av_strerror's text for an FFmpeg result code.
std::string ff_error_text(int err);

// Writes `what` (already formatted) followed by "Err=0x%x str=%s\n".
void report_ff_failure(const std::string& what, int err);

// The AVIO write callback takes a const buffer from libavformat 61 on.
#if LIBAVFORMAT_VERSION_MAJOR >= 61
#define PELVANE_AVIO_WRITE_CONST const
#else
#define PELVANE_AVIO_WRITE_CONST
#endif
