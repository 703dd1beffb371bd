#include "client/VelmoraClient.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ipc/CUnixSocketIpc.h"
#include "ipc/Framing.h"

namespace vclient {
namespace {

bool writeAll(CUnixSocketIpc& ipc, const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = ipc.Write(data, len);
        if (n <= 0) return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Reads exactly len bytes unless the daemon closes first (errno 0) or a read fails; the count read.
size_t readFull(CUnixSocketIpc& ipc, char* buf, size_t len) {
    size_t got = 0;
    while (got < len) {
        ssize_t n = ipc.Read(buf + got, len - got);
        if (n == 0) errno = 0;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    return got;
}

// A connect or read that would block or timed out: the daemon is there but does not keep up.
bool isBusy(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == ETIMEDOUT || err == EINPROGRESS; }

}  // namespace

std::string socketPathForRoot(const std::string& root) {
    std::string base = root;
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    if (base == "/") base.clear();
    return base + kDefaultSocket;
}

std::string buildRequest(const std::string& command, const Params& params) {
    XMLNode root = XMLNode::createXMLTopNode("root");
    root.addChild("command").addText(command.c_str());
    if (!params.empty()) {
        XMLNode list = root.addChild("paramList");
        for (const auto& [name, value] : params) {
            XMLNode param = list.addChild(name.c_str());
            if (!value.empty()) param.addText(value.c_str());
        }
    }
    return root.toString(0);
}

Exchange exchange(const std::string& socketPath, const std::string& request, int timeoutSec) {
    Exchange ex;
    try {
        CUnixSocketIpc ipc(socketPath.c_str(), false);
        if (ipc.Connect(timeoutSec) != 0) {
            const int err = errno;
            ex.notRunning = err == ENOENT || err == ECONNREFUSED;
            ex.busy = isBusy(err);
            ex.error = "cannot connect to " + socketPath + ": " + std::strerror(err);
            return ex;
        }
        ex.reached = true;
        if (!writeAll(ipc, request.data(), request.size())) {
            ex.error = std::string("sending the request failed: ") + std::strerror(errno);
            return ex;
        }
        char header[framing::kHeaderSize];
        if (readFull(ipc, header, sizeof header) != sizeof header) {
            ex.busy = isBusy(errno);
            ex.error = ex.busy ? "the daemon did not answer in time" : "the daemon closed the connection without answering";
            return ex;
        }
        long long length = framing::parseHeader(header, sizeof header);
        if (length < 0) {
            ex.error = "the answer's length block is not a number";
            return ex;
        }
        ex.answer.resize(static_cast<size_t>(length));
        if (readFull(ipc, ex.answer.data(), ex.answer.size()) != ex.answer.size()) {
            ex.error = "the answer was cut short";
            return ex;
        }
        static const char kAck[] = "ACK";
        writeAll(ipc, kAck, sizeof kAck - 1);
        ex.ok = true;
    } catch (const char* what) {
        ex.error = std::string("cannot create a socket: ") + what;
    }
    return ex;
}

Answer parseAnswer(const std::string& text) {
    Answer a;
    a.doc = XMLNode::parseString(text, "root");
    const char* status = a.doc.getChildNode("status").getText();
    if (!status) return a;
    a.status = status;
    a.isEcho = a.status == "ECHO";
    if (!a.isEcho) {
        char* end = nullptr;
        long v = std::strtol(status, &end, 10);
        a.code = (end && *end == '\0' && end != status) ? static_cast<int>(v) : -1;
    }
    return a;
}

std::string formatFields(const XMLNode& node, int indent) {
    std::string out;
    std::string pad(static_cast<size_t>(indent) * 2, ' ');
    for (int i = 0; i < node.nChildNode(); ++i) {
        XMLNode child = node.getChildNode(i);
        out += pad;
        out += child.getName();
        for (int a = 0; a < child.nAttribute(); ++a) {
            out += a == 0 ? " (" : ", ";
            out += child.getAttributeName(a);
            out += '=';
            out += child.getAttributeValue(a);
            if (a + 1 == child.nAttribute()) out += ')';
        }
        out += ':';
        for (int t = 0; t < child.nText(); ++t) {
            out += ' ';
            out += child.getText(t);
        }
        out += '\n';
        if (child.nChildNode() > 0) out += formatFields(child, indent + 1);
    }
    return out;
}

}  // namespace vclient
