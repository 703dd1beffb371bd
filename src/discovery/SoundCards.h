// What the kernel's sound-card views say about an output: its playback status and the name
// of the monitor behind an HDMI output.
#pragma once

#include <string>

namespace ParamXmlWrapper {

// Reads the first line of the card's playback status (/proc/asound/card<c>/pcm<d>p/sub0/status)
// into buf. 0 when a line was read; 1 for a negative card or device, a null buffer or no line.
int checkCardStatus(int card, int device, char* buf, int size);

// The attached monitor's name for an HDMI output id: from the card's ELD for "<card id>_..-<d>"
// ids, from the model's ELD file for the local HDMI player's output. "" when none is found.
std::string hdmiMonitorName(const std::string& uid);

}  // namespace ParamXmlWrapper
