// Output attributes of a local sound output, as clients send them back from a listing:
// "SAMPLERATE=96000,DSDPASS=Enable".
#pragma once

// Reads the sample rate (-1 automatic, -2 not given) and DSD passthrough (1 on, 0 off,
// -1 automatic, -2 not given). Keys and values compare case-insensitively; a later pair
// overrides an earlier one. 0, or -1 when an out-pointer is null.
int ParseMpdAttr(const char* attrs, int* sampleRate, int* dsd);
