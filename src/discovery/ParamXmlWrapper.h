// Helpers that read request parameters and build answer documents, chiefly the documents that
// describe render devices (the local sound outputs above all).
#pragma once

#include <string>

#include "xml/XMLNode.h"

namespace ParamXmlWrapper {

// Adds <name>text</name> under parent (text only when not null) and returns the new child.
XMLNode add_child_node(XMLNode& parent, const char* name, const char* text);

// Makes doc a new top node "root" with <status> and <cause> children for the texts given.
void create_status_xml_doc(XMLNode& doc, const char* status, const char* cause);

// Finds root/paramList/<name>. 0 when found, -1 when paramList or the element is missing.
int get_param_node(XMLNode& request, XMLNode& out, const char* name);
// As get_param_node, and -1 as well when the element has no text.
int get_param_node_with_check_text(XMLNode& request, XMLNode& out, const char* name);

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

// Reads the first line of the card's playback status (/proc/asound/card<c>/pcm<d>p/sub0/status)
// into buf. 0 when a line was read; 1 for a negative card or device, a null buffer or no line.
int checkCardStatus(int card, int device, char* buf, int size);

// The attached monitor's name for an HDMI output id: from the card's ELD for "<card id>_..-<d>"
// ids, from the model's ELD file for the local HDMI player's output. "" when none is found.
std::string hdmiMonitorName(const std::string& uid);

// Adds one <device Type="DLNA"> per renderer of the media agent's "list" answer to reply.
// -1 when the answer is empty or the agent reports "localServer_ERR", else 0.
int dlna_device_doc_gen(const std::string& agentXml, XMLNode& reply);

// Adds one <device Type="ALSA"> per output line of `outputs` to reply (only the ANALOG ones
// when analogOnly is set). 1 when the analog output of a voice-alert model was missing and the
// music service was restarted, so the caller should list again; else 0.
int alsa_device_doc_gen(const std::string& outputs, XMLNode& reply, int analogOnly);

// Adds allow_apps and inuse_apps from the media-dash settings to every listed device that has
// settings there.
void add_media_dash_attr(XMLNode& reply);

}  // namespace ParamXmlWrapper
