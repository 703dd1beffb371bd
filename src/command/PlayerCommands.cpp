#include "command/PlayerCommands.h"

#include <climits>
#include <cstring>
#include <string>

#include "protocol/RequestParams.h"
#include "util/ResultCodes.h"
#include "command/StatusCache.h"
#include "util/Log.h"
#include "protocol/ParamXmlWrapper.h"
#include "player/CPlayerManager.h"
#include "player/PlayerTypes.h"

using reqparam::missing;
using reqparam::ok;
using reqparam::text;
using reqparam::toInt;

namespace {

// The shape of most player commands: `dev` required, one manager call, status 0 or its code.
template <class Call>
int simple(CPlayerManager& manager, XMLNode& request, XMLNode& answer, const char* failure, Call call) {
    const char* dev = text(request, "dev");
    if (!dev) return missing();
    int rc = call(manager, dev);
    if (rc != 0) {
        if (failure) LOG_ERR("%s", failure);
        return rc;
    }
    ok(answer);
    return result::kOk;
}

// `dev` and one more required parameter.
template <class Call>
int withParam(CPlayerManager& manager, XMLNode& request, XMLNode& answer, const char* name, const char* failure,
              Call call) {
    const char* value = text(request, name);
    if (!value) return missing();
    return simple(manager, request, answer, failure,
                  [&](CPlayerManager& m, const char* dev) { return call(m, dev, value); });
}

}  // namespace

int play(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return simple(m, request, answer, "Play() ... fail",
                  [](CPlayerManager& pm, const char* dev) { return pm.play(dev, UINT_MAX); });
}

int pause(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return simple(m, request, answer, "Pause() ... fail", [](CPlayerManager& pm, const char* dev) { return pm.pause(dev); });
}

int stop(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return simple(m, request, answer, "Stop() ... fail", [](CPlayerManager& pm, const char* dev) { return pm.stop(dev); });
}

int next(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return simple(m, request, answer, "Next() ... fail", [](CPlayerManager& pm, const char* dev) { return pm.next(dev); });
}

int previous(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return simple(m, request, answer, "Previous() ... fail",
                  [](CPlayerManager& pm, const char* dev) { return pm.previous(dev); });
}

int seek(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return withParam(m, request, answer, "position", "Seek() ... fail",
                     [](CPlayerManager& pm, const char* dev, const char* position) { return pm.seek(dev, position); });
}

int set_track(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return withParam(m, request, answer, "track", "SetTrack() ... fail",
                     [](CPlayerManager& pm, const char* dev, const char* track) {
                         int n = toInt(track);
                         LOG_WARN(">>>>>>> track %d", n);
                         return pm.setTrack(dev, static_cast<unsigned int>(n));
                     });
}

int set_track_by_content(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return withParam(m, request, answer, "content", "SetTrack() ... fail",
                     [](CPlayerManager& pm, const char* dev, const char* content) {
                         return pm.setTrackByContent(dev, content);
                     });
}

int set_slide_show_delay(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return withParam(m, request, answer, "delay", "playerManager.setSlideShowDelay() ... fail",
                     [](CPlayerManager& pm, const char* dev, const char* delay) {
                         return pm.setSlideShowDelay(dev, toInt(delay));
                     });
}

int get_volume(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    const char* dev = text(request, "dev");
    if (!dev) return missing();
    int volume = m.getVolume(dev);
    // A negative volume is a failure code: the envelope answers it as the status.
    ok(answer);
    ParamXmlWrapper::add_child_node(answer, "volume", std::to_string(volume).c_str());
    return volume;
}

int set_volume(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return withParam(m, request, answer, "vol", "playerManager.setVolume() ... fail",
                     [](CPlayerManager& pm, const char* dev, const char* vol) { return pm.setVolume(dev, toInt(vol)); });
}

int get_mute(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    const char* dev = text(request, "dev");
    if (!dev) return missing();
    int rc = m.isMute(dev);
    if (rc == result::kPlayerBusy) {
        LOG_ERR("playerManager.isMute() ... fail");
        return rc;
    }
    ok(answer);
    ParamXmlWrapper::add_child_node(answer, "mute", rc > 0 ? "on" : "off");
    return rc < 0 ? rc : result::kOk;
}

int set_mute(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return withParam(m, request, answer, "mute", nullptr, [](CPlayerManager& pm, const char* dev, const char* mute) {
        return pm.setMute(dev, std::strcmp(mute, "on") == 0);  // exact: "ON" unmutes
    });
}

int set_playlist(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    const char* dev = text(request, "dev");
    const char* title = text(request, "playlist");
    const char* appType = text(request, "appType");
    if (!dev || !title || !appType) return missing();
    int rc = m.setPlaylist(dev, title, appType);
    if (rc != 0) {
        LOG_ERR("playerManager.setPlaylist() ... %s", rc == result::kPlayerBusy ? "Busy" : "Error");
        return rc;
    }
    ok(answer);
    return result::kOk;
}

int set_play_mode(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    const char* dev = text(request, "dev");
    const char* modeText = text(request, "playMode");
    if (!dev || !modeText) return missing();
    playMode_e mode;
    if (!playModeFromText(modeText, mode)) {
        LOG_ERR("UNKNOW Play mode");
        return result::kUnknownPlayMode;
    }
    int rc = m.setPlayMode(dev, mode);
    if (rc != 0) return rc;
    ok(answer);
    return result::kOk;
}

int set_player_attrs(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    return withParam(m, request, answer, "attr", nullptr, [](CPlayerManager& pm, const char* dev, const char* attr) {
        return pm.setPlayerAttributes(dev, attr);
    });
}

int setAudioSubtitleTrack(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    const char* dev = text(request, "dev");
    const char* aidText = text(request, "aid");
    const char* sidText = text(request, "sid");
    const char* externalSubtitle = text(request, "externalSubtitle");
    const char* position = text(request, "position");
    if (!dev || (!aidText && !sidText && !externalSubtitle && !position)) return missing();

    int aid = toInt(aidText, 0);
    int sid = toInt(sidText, -1);
    const char *sseek = nullptr, *ssize = nullptr, *scolor = nullptr, *sencoding = nullptr, *realPath = nullptr;
    if (sidText || externalSubtitle) {
        sseek = text(request, "sseek");
        ssize = text(request, "ssize");
        scolor = text(request, "scolor");
        sencoding = text(request, "sencoding");
        realPath = text(request, "realSubtitlePath");
    }
    // A subtitle chosen by the client switches the automatic one off.
    int autoSub = (sidText || externalSubtitle || sseek) ? 0 : toInt(text(request, "autoSub"), 0);

    LOG_TRACE(">>debug>>> aid=%d, sid=%d, pExternalSubtitle=%s, pPos=%s, sseek=%s, ssize=%s, scolor=%s", aid, sid,
              externalSubtitle ? externalSubtitle : "(null)", position ? position : "(null)",
              sseek ? sseek : "(null)", ssize ? ssize : "(null)", scolor ? scolor : "(null)");
    if (m.setAudioAndSubtitle(dev, externalSubtitle, aid, sid, position, sseek, ssize, scolor, sencoding, realPath,
                              autoSub) != 0) {
        LOG_ERR("setAudioSubtitleTrack() ... fail");
        return result::kAgentFailure;
    }
    ok(answer);
    return result::kOk;
}

int list_player(CPlayerManager& m, XMLNode&, XMLNode& answer) {
    m.invalidPlayerCollection();
    ok(answer);
    std::string renderID, deviceName;
    for (unsigned int i = 0; m.getPlayerRenderID(i, renderID) && m.getPlayerDeviceName(i, deviceName); ++i) {
        XMLNode player = answer.addChild("player");
        ParamXmlWrapper::add_child_node(player, "renderID", renderID.c_str());
        ParamXmlWrapper::add_child_node(player, "deviceName", deviceName.c_str());
    }
    return result::kOk;
}

namespace {

std::string mediaKindsText(uint32_t type) {
    std::string kinds;
    auto add = [&](uint32_t bit, const char* word) {
        if (!(type & bit)) return;
        if (!kinds.empty()) kinds += ',';
        kinds += word;
    };
    add(playertype::kCapVideo, "video");
    add(playertype::kCapAudio, "music");
    add(playertype::kCapPhoto, "photo");
    return kinds.empty() ? "UNKNOW" : kinds;
}

}  // namespace

int get_player_status(CPlayerManager& m, XMLNode& request, XMLNode& answer) {
    const char* dev = text(request, "dev");
    if (!dev) return missing();
    playerStatus_s status;
    int rc = m.getPlayerStatus(dev, status);
    if (rc != 0) {
        LOG_ERR("playerManager.getPlayerStatus() ... %s", rc == result::kPlayerBusy ? "BUSY" : " Error");
        return rc;
    }

    ok(answer);
    auto add = [&](const char* name, const std::string& value) {
        ParamXmlWrapper::add_child_node(answer, name, value.c_str());
    };
    auto addIfSet = [&](const char* name, const std::string& value) {
        if (!value.empty()) add(name, value);
    };
    add("deviceName", status.deviceName);
    XMLNode device = answer.addChild("device");
    device.addAttribute("Type", status.deviceType);
    if (status.deviceSubtype) device.addAttribute("Subtype", status.deviceSubtype);
    add("playerType", mediaKindsText(status.playerType));
    add("playerState", playerStateText(status.playerState));
    add("playMode", playModeText(status.playMode));
    add("playlistTitle", status.playlistTitle);
    add("appType", status.appType);
    add("trackType", status.trackType);
    add("trackContentType", status.trackContentType);
    add("trackContent", status.trackContent);
    add("currTrack", std::to_string(status.currTrack));
    add("totalTracks", std::to_string(status.totalTracks));
    add("currTime", status.currTime);
    add("totalTime", status.totalTime);
    ParamXmlWrapper::add_child_node(answer, "playlistOwner", status.owner.empty() ? nullptr : status.owner.c_str());
    ParamXmlWrapper::add_child_node(answer, "playlistTag", status.tag.empty() ? nullptr : status.tag.c_str());
    addIfSet("currentAutoSubtitle", status.autoPlugSubtitle);
    add("currentAudioTrack", std::to_string(status.currentAudioTrack));
    add("currentSubtitleTrack", std::to_string(status.currentSubtitleTrack));
    addIfSet("currentExternalSubtitle", status.externalSubtitle);
    addIfSet("subtitleSize", status.ssize);
    addIfSet("subtitleColor", status.scolor);
    addIfSet("subtitleEncoding", status.sencoding);
    addIfSet("subtitleSeek", status.sseek);

    if (status.trackType == "video") StatusCache::instance().appendTrackLists(status, answer);
    return result::kOk;
}
