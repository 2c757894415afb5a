// Placeholder until the converters land: no caption data.
#include "tolm_utils/webvtt.h"

void WebVTTTo608(cc608_map&, molvar_rational<long>, bool, const WebVTTFile_v1&,
                 vtt_cue_map::const_iterator, vtt_cue_map::const_iterator, unsigned,
                 WebVTTConvContext_v1&) {}

void WebVTTTo708(cc708_map&, molvar_rational<long>, bool, const WebVTTFile_v1&,
                 vtt_cue_map::const_iterator, vtt_cue_map::const_iterator, unsigned,
                 WebVTTConvContext_v1&, molvar_rational<long>) {}
