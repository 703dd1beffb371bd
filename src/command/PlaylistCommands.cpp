#include "command/PlaylistCommands.h"

#include "agent/MediaAgent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "command/LargeAnswers.h"
#include "command/RequestClient.h"
#include "protocol/RequestParams.h"
#include "util/ResultCodes.h"
#include "util/AppRoot.h"
#include "util/ClientRights.h"
#include "util/Log.h"
#include "util/PathUtil.h"
#include "util/Process.h"
#include "protocol/ParamXmlWrapper.h"
#include "player/CPlayer.h"
#include "player/CPlayerManager.h"
#include "playlist/CSqlitePlaylist.h"

namespace {

constexpr const char* kDupFile = "/tmp/.dupPlaylist.list";
// About what one listed playlist entry takes in an answer.
constexpr size_t kItemBytes = 256;
// The agent's answer about one file: a few fields.
constexpr size_t kObjectAnswerCap = 8192;

using reqparam::toInt;

const char* param(XMLNode& request, const char* name) { return reqparam::text(request, name); }

uint64_t toUuid(const char* text) { return text ? std::strtoull(text, nullptr, 10) : 0; }

std::string decimal(long long v) { return std::to_string(v); }

void answerOk(XMLNode& answer) { reqparam::ok(answer); }

int missingParameter() { return reqparam::missing(); }

// Words written in answers.
const char* mediaWordForCreate(int type) {
    switch (type) {
        case MEDIA_AUDIO_E: return "audio";
        case MEDIA_PHOTO_E: return "photo";
        case MEDIA_VIDEO_E: return "video";
        case MEDIA_MIXED_E: return "mixed";
        default: return "unknow";
    }
}

const char* mediaWordForList(int type) {  // null: no type element
    switch (type) {
        case MEDIA_AUDIO_E: return "audio";
        case MEDIA_PHOTO_E: return "photo";
        case MEDIA_VIDEO_E: return "video";
        default: return nullptr;
    }
}

const char* mediaWordForContent(int type) {
    const char* word = mediaWordForList(type);
    return word ? word : "UNKNOW";
}

const char* contentWord(int type) {
    switch (type) {
        case CONTENT_FILE_E: return "file";
        case CONTENT_OBJECT_E: return "object";
        case CONTENT_DBID_E: return "dbID";
        default: return "UNKNOW";
    }
}

void addLibraryRecord(XMLNode& parent, const playlistLibElm_s& elm, const char* typeWord) {
    ParamXmlWrapper::add_child_node(parent, "playlistID", decimal(elm.PlaylistID).c_str());
    ParamXmlWrapper::add_child_node(parent, "title", elm.PlaylistTitle.c_str());
    if (typeWord) ParamXmlWrapper::add_child_node(parent, "type", typeWord);
    // Empty texts give elements without text.
    auto addText = [&](const char* name, const std::string& text) {
        ParamXmlWrapper::add_child_node(parent, name, text.empty() ? nullptr : text.c_str());
    };
    addText("appType", elm.AppType);
    addText("owner", elm.Owner);
    addText("tag", elm.Tag);
}

}  // namespace

int get_upnp_object_id(CPlayerManager&, XMLNode& request, XMLNode& answer) {
    const char* filePath = param(request, "filePath");
    if (!filePath) return missingParameter();

    std::string realPath;
    if (CPlayer::getRealFilePath(filePath, realPath) != 0) {
        LOG_ERR("%s not exist", filePath);
        return result::kNotFound;
    }

    std::string output;
    mediaagent::Argv argv = mediaagent::command("getObjectID");
    argv.insert(argv.end(), {"--filePath", realPath});
    if (!mediaagent::query(argv, kObjectAnswerCap, output)) return result::kAgentFailure;

    XMLNode reply = XMLNode::parseString(output, "root");
    if (reply.isEmpty()) return result::kBadAgentAnswer;
    const char* status = reply.getChildNode("status").getText();
    if (!status) return result::kNoAgentStatus;
    if (std::strcmp(status, "success") != 0) return result::kNotFound;
    const char* objectID = reply.getChildNode("objectID").getText();
    if (!objectID) return result::kNoObjectID;

    answerOk(answer);
    ParamXmlWrapper::add_child_node(answer, "objectID", objectID);
    return result::kOk;
}

int size_of_playlist(CPlayerManager&, XMLNode& request, XMLNode& answer) {
    const char* appType = param(request, "appType");
    if (!appType) return missingParameter();
    int size = playlistStore().getSizeOfPlaylistLib(appType);
    answerOk(answer);
    ParamXmlWrapper::add_child_node(answer, "size", decimal(size).c_str());
    return result::kOk;
}

int list_playlist(CPlayerManager&, XMLNode& request, XMLNode& answer) {
    const char* appType = param(request, "appType");
    if (!appType) return missingParameter();
    const char* startText = param(request, "start");
    const char* countText = param(request, "count");
    int start = 0, count = 0;
    if (startText && countText) {
        start = toInt(startText);
        count = toInt(countText);
    }
    std::vector<playlistLibElm_s> page;
    if (playlistStore().getPlaylistLibElmsByPage(page, appType, start, count) != 0) {
        LOG_ERR("g_playlistDB.getPlaylistLibElmsByPage() ... fail");
        return result::kPlaylistReadFailed;
    }
    answerOk(answer);
    for (const playlistLibElm_s& elm : page) {
        XMLNode node = answer.addChild("playlist");
        addLibraryRecord(node, elm, mediaWordForList(elm.PlaylistType));
    }
    return result::kOk;
}

int size_of_list_contents(CPlayerManager&, XMLNode& request, XMLNode& answer) {
    const char* title = param(request, "playlist");
    const char* appType = param(request, "appType");
    if (!title || !appType) {
        LOG_ERR("g_playlistDB.getPlaylistID() ... fial");
        return result::kNoPlaylistID;
    }
    int id = playlistStore().getPlaylistID(title, appType);
    if (id < 0) return result::kNoSuchPlaylist;
    int size = playlistStore().getSizeOfPlaylist(id);
    answerOk(answer);
    ParamXmlWrapper::add_child_node(answer, "size", decimal(size).c_str());
    return result::kOk;
}

int list_content_of_playlist(CPlayerManager&, XMLNode& request, XMLNode& answer) {
    const char* title = param(request, "playlist");
    const char* appType = param(request, "appType");
    if (!title || !appType) return missingParameter();

    // start and count count only together; a present element without text means 0.
    XMLNode startNode, countNode;
    int start = 0, count = 0;
    if (ParamXmlWrapper::get_param_node(request, startNode, "start") == 0 &&
        ParamXmlWrapper::get_param_node(request, countNode, "count") == 0) {
        start = toInt(startNode.getText());
        count = toInt(countNode.getText());
    }

    int id = playlistStore().getPlaylistID(title, appType);
    if (id < 0) {
        LOG_ERR("g_playlistDB.getPlaylistID() ... fial");
        return result::kNoPlaylistID;
    }
    const int size = playlistStore().getSizeOfPlaylist(id);
    const int rows = count > 0 ? std::min(count, size) : size;
    largeanswer::expect(static_cast<size_t>(std::max(rows, 0)) * kItemBytes);
    auto page = std::make_shared<std::vector<playlistElm_s>>();
    if (playlistStore().getPlaylistElmsByPage(*page, id, start, count) != 0) {
        LOG_ERR("g_playlistDB.getPlaylistElmsByPage() ... fial");
        return result::kPlaylistReadFailed;
    }
    answerOk(answer);
    // The items go straight into the printed answer, one at a time, rather than into a tree of
    // their own first: a listing of tens of thousands of entries is held once, as its rows.
    answer.addContentWriter([page](std::string& out, int depth, bool formatted) {
        for (const playlistElm_s& elm : *page) {
            XMLNode item = XMLNode::createXMLTopNode("item");
            ParamXmlWrapper::add_child_node(item, "playlistID", decimal(elm.PlaylistID).c_str());
            ParamXmlWrapper::add_child_node(item, "uuid", std::to_string(elm.UUID).c_str());
            ParamXmlWrapper::add_child_node(item, "mediaType", mediaWordForContent(elm.MediaType));
            ParamXmlWrapper::add_child_node(item, "contentType", contentWord(elm.ContentType));
            ParamXmlWrapper::add_child_node(item, "content", elm.Content.c_str());
            ParamXmlWrapper::add_child_node(item, "upnpID", elm.UPnPObjID.c_str());
            ParamXmlWrapper::add_child_node(item, "orderNum", decimal(elm.OrderNr).c_str());
            item.appendTo(out, formatted ? 1 : 0, depth);
        }
    });
    return result::kOk;
}

int create_play_list(CPlayerManager&, XMLNode& request, XMLNode& answer) {
    const char* title = param(request, "playlist");
    const char* typeText = param(request, "playlistType");
    const char* appType = param(request, "appType");
    if (!title || !typeText || !appType) return missingParameter();
    const char* owner = param(request, "owner");
    const char* tag = param(request, "tag");

    mediaType_e type = mediaTypeFromText(typeText);
    if (playlistStore().addPlaylist(title, type, appType, owner, tag) != 0) {
        LOG_ERR("g_playlistDB.addPlaylist() ... fail");
        return result::kDatabaseFailure;
    }
    answerOk(answer);
    playlistLibElm_s elm;
    elm.AppType = appType;
    int id = playlistStore().getPlaylistID(title, appType);
    playlistStore().getPlaylistLibElmByID(id, elm);
    addLibraryRecord(answer, elm, mediaWordForCreate(elm.PlaylistType));
    return result::kOk;
}

int add_content(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer) {
    const char* title = param(request, "playlist");
    const char* contentTypeText = param(request, "contentType");
    const char* mediaTypeText = param(request, "mediaType");
    const char* content = param(request, "content");
    const char* appType = param(request, "appType");
    if (!title || !contentTypeText || !mediaTypeText || !content || !appType) return missingParameter();
    int orderNum = toInt(param(request, "orderNum"), -1);

    if (playlistStore().addElmInPlaylist(title, mediaTypeFromText(mediaTypeText), contentTypeFromText(contentTypeText),
                                         appType, content, orderNum) != 0) {
        LOG_ERR("g_playlistDB.addElmInPlaylist() ... fail");
        return result::kDatabaseFailure;
    }
    LOG_TRACE("+++playlist:%s   appType:%s   content:%s", title, appType, content);
    playerManager.addLastItemInPlayQueue(title, orderNum);
    answerOk(answer);
    return result::kOk;
}

int del_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer) {
    const char* title = param(request, "playlist");
    const char* appType = param(request, "appType");
    if (!title || !appType) return missingParameter();

    // Players stop using the playlist while it goes.
    playerManager.setDeleting(true, title, appType);
    int rc = result::kOk;
    if (playlistStore().delPlaylist(title, appType) != 0) {
        LOG_ERR("g_playlistDB.delPlaylist() ... fail");
        rc = result::kDatabaseFailure;
    } else {
        playerManager.delPlaylist(title, appType);
        answerOk(answer);
    }
    playerManager.setDeleting(false, nullptr, nullptr);
    return rc;
}

int del_content(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer) {
    const char* title = param(request, "playlist");
    const char* uuidText = param(request, "uuid");
    const char* appType = param(request, "appType");
    if (!title || !uuidText || !appType) return missingParameter();
    uint64_t uuid = toUuid(uuidText);
    if (playlistStore().delElmInPlaylist(title, appType, uuid) != 0) {
        LOG_ERR("g_playlistDB.delElmtInPlaylist() ... fail");
        return result::kDatabaseFailure;
    }
    playerManager.delItemFromPlayQueue(title, uuid);
    answerOk(answer);
    return result::kOk;
}

int reorder_content(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer) {
    const char* title = param(request, "playlist");
    const char* origText = param(request, "origOrder");
    const char* newText = param(request, "newOrder");
    const char* appType = param(request, "appType");
    if (!title || !origText || !newText || !appType) return missingParameter();
    int id = playlistStore().getPlaylistID(title, appType);
    if (id < 1) {
        LOG_ERR("The %s is not exist", title);
        return result::kNoSuchPlaylist;
    }
    int from = toInt(origText), to = toInt(newText);
    playlistStore().reorderPlaylistElm(id, from, to);
    if (from >= 0 && to >= 0) playerManager.reorderPlayQueue(title, static_cast<size_t>(from), static_cast<size_t>(to));
    answerOk(answer);
    return result::kOk;
}

namespace {

// A batch file: the document's top element, or an empty handle with the failing code. It is
// read with the requesting client's rights: a file the client could not read itself answers as a
// missing one, so nothing is learnt about it.
XMLNode readBatchFile(const char* path, int& rc) {
    const int fd = openForReadingAs(requestclient::current(), path);
    if (fd < 0) {
        LOG_ERR("Can't open %s", path);
        rc = result::kFileUnreadable;
        return XMLNode();
    }
    std::string content;
    char chunk[16384];
    ssize_t got;
    while ((got = ::read(fd, chunk, sizeof chunk)) != 0) {
        if (got > 0) content.append(chunk, static_cast<size_t>(got));
        else if (errno != EINTR) break;
    }
    ::close(fd);
    XMLNode doc = got == 0 ? XMLNode::parseString(content) : XMLNode();
    for (int i = 0; i < doc.nChildNode(); ++i) {
        XMLNode top = doc.getChildNode(i);
        if (!top.isDeclaration()) return top;
    }
    LOG_ERR("XML file format error");
    rc = result::kFileFormat;
    return XMLNode();
}

// Removed with the client's rights too: read access alone must not let a client have the
// daemon delete a file.
void removeBatchFile(const char* path) {
    if (runWithRightsOf(requestclient::current(), [path] { return ::unlink(path); }) != 0)
        LOG_ERR("remove %s failed", path);
}

}  // namespace

int batch_add_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer) {
    const char* filePath = param(request, "filePath");
    if (!filePath) return missingParameter();
    int start = toInt(param(request, "start"), 0);

    int rc = result::kOk;
    XMLNode batch = readBatchFile(filePath, rc);
    if (batch.isEmpty()) return rc;
    XMLNode playlistNode = batch.getChildNode("playlist");
    const char* title = playlistNode.getText();
    const char* appType = batch.getChildNode("appType").getText();
    if (!title || !appType) return result::kDatabaseFailure;

    // The playlist and every entry in one transaction: a batch that fails, or a daemon killed
    // half-way, leaves either no trace or the whole playlist.
    CSqlitePlaylist& store = playlistStore();
    int id = -1;
    {
        PlaylistBatch batchTransaction(store);
        id = store.transPlaylistID(title, appType);
        if (id < 1) {
            mediaType_e type = mediaTypeFromText(playlistNode.getAttribute("playlistType"));
            store.transAddPlaylist(title, type, appType, batch.getChildNode("owner").getText(),
                                   batch.getChildNode("tag").getText());
            id = store.transPlaylistID(title, appType);
            if (id < 0) return result::kDatabaseFailure;
        }

        int size = store.transSizeOfPlaylist(id);
        int n = batch.nChildNode("item");
        int insertAt = size;
        if (start != 0 && start < size && store.transAdjustPlayOrder(id, start, n) == 0) insertAt = start;

        int index = 0;
        int cursor = 0;  // walks the items once: a batch may hold tens of thousands
        for (XMLNode item = batch.getChildNode("item", &cursor); !item.isEmpty();
             item = batch.getChildNode("item", &cursor)) {
            const char* content = item.getText();
            if (store.transAddElmInPlaylist(id, mediaTypeFromText(item.getAttribute("mediaType")),
                                            contentTypeFromText(item.getAttribute("contentType")),
                                            content ? content : "", insertAt + index) != 0) {
                LOG_ERR("g_playlistDB.addElmInPlaylist() ... fail");
                return result::kDatabaseFailure;  // rolled back, the batch file kept for a retry
            }
            ++index;
        }
        if (batchTransaction.end() != SQLITE_OK) return result::kDatabaseFailure;
    }

    playerManager.updateAssociatePlayQueue(id);
    removeBatchFile(filePath);
    answerOk(answer);
    return result::kOk;
}

int batch_del_playlist(CPlayerManager&, XMLNode& request, XMLNode& answer) {
    const char* filePath = param(request, "filePath");
    if (!filePath) return missingParameter();
    int rc = result::kOk;
    XMLNode batch = readBatchFile(filePath, rc);
    if (batch.isEmpty()) return rc;
    const char* title = batch.getChildNode("playlist").getText();
    const char* appType = batch.getChildNode("appType").getText();
    if (!title || !appType) {
        LOG_ERR("XML file format error");
        return result::kFileFormat;
    }
    if (playlistStore().getPlaylistID(title, appType) < 1) {
        LOG_ERR("The %s is not exist", title);
        return result::kNoSuchPlaylist;
    }
    int cursor = 0;
    for (XMLNode node = batch.getChildNode("uuid", &cursor); !node.isEmpty(); node = batch.getChildNode("uuid", &cursor)) {
        const char* uuid = node.getText();
        if (!uuid) continue;
        if (playlistStore().delElmInPlaylist(title, appType, toUuid(uuid)) != 0) {
            LOG_ERR("g_playlistDB.delElmInPlaylist() ... fail");
            return result::kDatabaseFailure;
        }
    }
    answerOk(answer);
    return result::kOk;
}

namespace {

// One duplication at a time: they share the one list file.
std::mutex g_dupMutex;

const char* dupMediaWord(int type) {
    switch (type) {
        case MEDIA_PHOTO_E: return "photo\" ";
        case MEDIA_AUDIO_E: return "audio\" ";
        case MEDIA_VIDEO_E: return "vidoe\" ";  // read back as unknown: duplicated videos lose their type
        default: return "";
    }
}

const char* dupContentWord(int type) {
    switch (type) {
        case CONTENT_FILE_E: return "file\">";
        case CONTENT_OBJECT_E: return "object\">";
        case CONTENT_DBID_E: return "dbID\">";
        default: return "";
    }
}

std::string dupListText(const std::vector<playlistElm_s>& entries, const char* destTitle, const char* destAppType) {
    std::string text = "<root>\n";
    if (!entries.empty()) {
        text += "\t<appType>" + ToXMLStringTool::toXML(destAppType) + "</appType>\n";
        text += "\t<playlist playlistType=\"dup\">" + ToXMLStringTool::toXML(destTitle) + "</playlist>\n";
    }
    for (const playlistElm_s& elm : entries) {
        text += "\t<item mediaType=\"";
        text += dupMediaWord(elm.MediaType);
        text += "contentType=\"";
        text += dupContentWord(elm.ContentType);
        text += ToXMLStringTool::toXML(elm.Content.c_str());
        text += "</item>\n";
    }
    text += "</root>\n";
    return text;
}

// Writes the list file without following a link planted at its name.
bool writeDupFile(const std::string& path, const std::string& text) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        LOG_ERR("open %s failed: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    const char* data = text.data();
    size_t left = text.size();
    bool ok = true;
    while (left > 0) {
        ssize_t n = ::write(fd, data, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        data += n;
        left -= static_cast<size_t>(n);
    }
    ::close(fd);
    return ok;
}

}  // namespace

int duplicate_playlist(CPlayerManager& playerManager, XMLNode& request, XMLNode& answer) {
    const char* src = param(request, "playlist_src");
    const char* dest = param(request, "playlist_dest");
    const char* appType = param(request, "appType");
    if (!src || !dest || !appType) return missingParameter();
    const char* destAppType = param(request, "destAppType");
    if (!destAppType) destAppType = appType;

    int id = playlistStore().getPlaylistID(src, appType);
    if (id < 0) {
        LOG_ERR("g_playlistDB.getPlaylistID() ... fial");
        return result::kNoPlaylistID;
    }
    std::vector<playlistElm_s> entries;
    if (playlistStore().getPlaylistElmsByPage(entries, id, 0, 0) != 0) {
        LOG_ERR("g_playlistDB.getPlaylistElmsByPage() ... fial");
        return result::kPlaylistReadFailed;
    }
    answerOk(answer);

    std::lock_guard lock(g_dupMutex);
    // The list file is the daemon's own, read and removed with its own rights.
    requestclient::Scope daemonItself(nullptr);
    std::string path = approot::path(kDupFile);
    if (!writeDupFile(path, dupListText(entries, dest, destAppType))) return result::kOk;

    // Replace any earlier playlist of that name, then fill it from the list.
    XMLNode inner = XMLNode::createXMLTopNode("root");
    XMLNode params = inner.addChild("paramList");
    ParamXmlWrapper::add_child_node(params, "playlist", dest);
    ParamXmlWrapper::add_child_node(params, "appType", appType);
    ParamXmlWrapper::add_child_node(params, "filePath", path.c_str());
    XMLNode scratch;
    del_playlist(playerManager, inner, scratch);
    scratch = XMLNode();
    batch_add_playlist(playerManager, inner, scratch);
    removeBatchFile(path.c_str());
    return result::kOk;
}
