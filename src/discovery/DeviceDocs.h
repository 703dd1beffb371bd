// Documents that describe render devices: DLNA renderers from the media agent, the local sound
// outputs of the shared MPD instance, and the media-dash decorations.
#pragma once

#include <string>

#include "xml/XMLNode.h"

namespace ParamXmlWrapper {

// Adds one <device Type="DLNA"> per renderer of the media agent's "list" answer to reply.
// -1 when the answer is empty or the agent reports "localServer_ERR", else 0.
int dlna_device_doc_gen(const std::string& agentXml, XMLNode& reply);

// Adds one <device Type="ALSA"> per output line of `outputs` to reply (only the ANALOG ones
// when analogOnly is set). True when an analog output was among them.
bool alsa_device_doc_gen(const std::string& outputs, XMLNode& reply, int analogOnly);

// Models with a voice-alert speaker always have an analog output: without one listed the music
// service lost it and is restarted. True when the restart was run, so the caller should list
// the outputs again.
bool restartMusicServiceIfAnalogMissing(bool analogFound);

// Adds allow_apps and inuse_apps from the media-dash settings to every listed device that has
// settings there.
void add_media_dash_attr(XMLNode& reply);

}  // namespace ParamXmlWrapper
