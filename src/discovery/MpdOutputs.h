// The shared MPD instance's extended output list ("mpc outputs"), one output a line.
#pragma once

#include <cstddef>
#include <string>

namespace ParamXmlWrapper {

// Output device types of the shared MPD's extended output list ("devType:<n>").
enum outputDeviceType_e {
    OUTPUT_UNKNOWN_E = 0,
    OUTPUT_USB_E = 1,
    OUTPUT_HDMI_E = 2,
    OUTPUT_ANALOG_E = 3,
};
// "UNKNOWN", "USB", "HDMI", "ANALOG", indexed by the type.
const char* outputDeviceTypeName(int type);

// One line of "mpc outputs" in its extended form:
// Output 2 (USB DAC) is enabled devType:1 uid:usb1 sampleRate:96000 sampleRateMode:0 dsd:1
//   dsdMode:0 hwParam:hw:CARD=1,DEV=0
struct mpdOutput_s {
    int number = 0;
    std::string name;
    std::string uid;
    int devType = OUTPUT_UNKNOWN_E;
    int sampleRate = 0;
    int sampleRateMode = 0;  // 0: the rate follows the music
    int dsd = 0;             // 0: off
    int dsdMode = 0;
    int card = -1;
    int device = -1;
};

// Fills out from one line; false for a line that is not a complete output line.
bool parseOutputLine(const char* line, mpdOutput_s& out);

// Scans the words of text for one beginning "devType:"; its single digit is the type when
// 0..3, else 0 (also without such a word). *consumed (when given) tells how far it read.
int Get_Output_DeviceType(const char* text, int* consumed);

// From text[*pos] on, finds the first word that begins with key and copies the rest of that
// word (at most 1024 bytes) into value; *pos moves past it. 0 when found; -1 at the end of the
// text or at the first word not longer than the key.
int get_key_value(const char* text, size_t* pos, const char* key, std::string& value);

}  // namespace ParamXmlWrapper
