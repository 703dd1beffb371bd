#include "output/airplay/CurlWrapper.h"

#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>

#include "thread/CThread.h"
#include "thread/ThreadLock.h"
#include "util/Log.h"

namespace {

std::atomic<long> g_connectTimeoutMs{3000};
std::atomic<long> g_totalTimeoutMs{5000};
constexpr long kStopExpectMs = 3000;
// Real receivers expect a media-control client; some refuse requests without these.
constexpr const char* kUserAgent = "MediaControl/1.0";

// Appends what libcurl hands over to the string `target` points at, up to kMaxAnswer; past it
// the transfer is cut (libcurl sees fewer bytes taken and fails the request).
size_t appendCapped(char* contents, size_t size, size_t nmemb, void* target) {
    if (!contents) {
        LOG_ERR("contents == NULL");
        return 0;
    }
    auto* out = static_cast<std::string*>(target);
    const size_t n = size * nmemb;
    if (out->size() + n > CurlWrapper::kMaxAnswer) return 0;
    out->append(contents, n);
    return n;
}

// A random (version 4) UUID in upper case, as senders name their playback sessions.
std::string newSessionId() {
    std::random_device random;
    unsigned char b[16];
    for (size_t i = 0; i < sizeof b; i += 4) {
        const unsigned int r = random();
        for (size_t k = 0; k < 4; ++k) b[i + k] = static_cast<unsigned char>(r >> (8 * k));
    }
    b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
    b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
    char text[37];
    std::snprintf(text, sizeof text, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                  b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return text;
}

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

}  // namespace

CurlWrapper::CurlWrapper() : m_curl(CurlLibrary::get()), m_sessionId(newSessionId()) {
    m_handle = m_curl ? m_curl->easy_init() : nullptr;
    if (!m_handle) LOG_ERR("curl_easy_init() fail.");
    CThread::mutexInit(m_lock, MUTEX_NORMAL_E);
}

CurlWrapper::~CurlWrapper() {
    if (m_handle) m_curl->easy_cleanup(m_handle);
    pthread_mutex_destroy(&m_lock);
}

void CurlWrapper::setTimeouts(std::chrono::milliseconds connect, std::chrono::milliseconds total) {
    g_connectTimeoutMs = static_cast<long>(connect.count());
    g_totalTimeoutMs = static_cast<long>(total.count());
}

void CurlWrapper::setIp(std::string ip) {
    ThreadSingleLock lock(m_lock);
    m_ip = std::move(ip);
}

std::string CurlWrapper::getIp() {
    ThreadSingleLock lock(m_lock);
    return m_ip;
}

void CurlWrapper::setPort(int port) {
    if (port < 0) {
        LOG_ERR("port can not be negative. ");
        return;
    }
    ThreadSingleLock lock(m_lock);
    m_port = port;
}

int CurlWrapper::getPort() {
    ThreadSingleLock lock(m_lock);
    return m_port;
}

void CurlWrapper::prepareUrl() {
    ThreadSingleLock lock(m_lock);
    std::ostringstream url;
    url << "http://" << m_ip << ":" << m_port;
    m_url = url.str();
}

bool CurlWrapper::check() {
    ThreadSingleLock lock(m_lock);
    return checkLocked();
}

bool CurlWrapper::checkLocked() {
    if (m_ip.empty()) {
        LOG_ERR("ip is not set.");
        return false;
    }
    if (m_port < 1) {
        LOG_ERR("port is not set.");
        return false;
    }
    if (m_url.empty()) {
        LOG_ERR("url is not set.");
        return false;
    }
    if (!m_handle) {
        LOG_ERR("curl ez handle is not ready.");
        return false;
    }
    return true;
}

std::string CurlWrapper::urlEscape(const std::string& text) {
    ThreadSingleLock lock(m_lock);
    if (!m_handle) return text;
    char* escaped = m_curl->easy_escape(m_handle, text.c_str(), static_cast<int>(text.size()));
    if (!escaped) return text;
    std::string out(escaped);
    m_curl->free(escaped);
    return out;
}

int CurlWrapper::request(Response& response, Method method, const std::string& path, const std::string& body,
                         const std::string& contentType, const std::string& uploadPath) {
    ThreadSingleLock lock(m_lock);
    if (!checkLocked()) return -1;
    const std::string url = m_url + path;
    LOG_TRACE("url>>> %s", url.c_str());

    std::unique_ptr<FILE, FileCloser> upload;
    curl_off_t uploadSize = 0;
    if (method == Method::Put) {
        struct stat st{};
        if (::stat(uploadPath.c_str(), &st) != 0) {
            LOG_ERR("can't stat %s", uploadPath.c_str());
            return -1;
        }
        upload.reset(std::fopen(uploadPath.c_str(), "rbe"));
        if (!upload) {
            LOG_ERR("fopen %s fail", uploadPath.c_str());
            return -1;
        }
        uploadSize = static_cast<curl_off_t>(st.st_size);
    }

    // Nothing of the previous request stays in force (connections are kept).
    m_curl->easy_reset(m_handle);
    std::string header;
    std::string content;
    struct curl_slist* headers = nullptr;
    headers = m_curl->slist_append(headers, ("User-Agent: " + std::string(kUserAgent)).c_str());
    if (!contentType.empty()) headers = m_curl->slist_append(headers, ("Content-Type: " + contentType).c_str());
    headers = m_curl->slist_append(headers, ("X-Apple-Session-ID: " + m_sessionId).c_str());
    std::unique_ptr<curl_slist, void (*)(curl_slist*)> headerList(headers, m_curl->slist_free_all);

    const long totalMs = g_totalTimeoutMs.load() * (method == Method::Put ? 2 : 1);
    bool ok = m_curl->easy_setopt(m_handle, CURLOPT_URL, url.c_str()) == CURLE_OK &&
              m_curl->easy_setopt(m_handle, CURLOPT_HEADERFUNCTION, &appendCapped) == CURLE_OK &&
              m_curl->easy_setopt(m_handle, CURLOPT_HEADERDATA, &header) == CURLE_OK &&
              m_curl->easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, &appendCapped) == CURLE_OK &&
              m_curl->easy_setopt(m_handle, CURLOPT_WRITEDATA, &content) == CURLE_OK &&
              m_curl->easy_setopt(m_handle, CURLOPT_HTTPHEADER, headerList.get()) == CURLE_OK &&
              m_curl->easy_setopt(m_handle, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
              m_curl->easy_setopt(m_handle, CURLOPT_CONNECTTIMEOUT_MS, g_connectTimeoutMs.load()) == CURLE_OK &&
              m_curl->easy_setopt(m_handle, CURLOPT_TIMEOUT_MS, totalMs) == CURLE_OK &&
              m_curl->easy_setopt(m_handle, CURLOPT_PROTOCOLS_STR, "http") == CURLE_OK;
    if (!ok) {
        LOG_ERR("curlPrepare() fail.");
        return -1;
    }
    switch (method) {
        case Method::Get: break;
        case Method::Post:
            // The body is copied: it need not outlive this call.
            ok = m_curl->easy_setopt(m_handle, CURLOPT_POST, 1L) == CURLE_OK &&
                 m_curl->easy_setopt(m_handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size())) == CURLE_OK &&
                 m_curl->easy_setopt(m_handle, CURLOPT_COPYPOSTFIELDS, body.c_str()) == CURLE_OK;
            if (!ok) LOG_ERR("curl_easy_setopt() CURLOPT_POST fail");
            break;
        case Method::Put:
            ok = m_curl->easy_setopt(m_handle, CURLOPT_UPLOAD, 1L) == CURLE_OK &&
                 m_curl->easy_setopt(m_handle, CURLOPT_READDATA, upload.get()) == CURLE_OK &&
                 m_curl->easy_setopt(m_handle, CURLOPT_INFILESIZE_LARGE, uploadSize) == CURLE_OK;
            if (!ok) LOG_ERR("curl_easy_setopt() CURLOPT_UPLOAD fail");
            break;
    }
    if (ok && path == "/stop") ok = m_curl->easy_setopt(m_handle, CURLOPT_EXPECT_100_TIMEOUT_MS, kStopExpectMs) == CURLE_OK;
    if (!ok) return -1;

    const CURLcode code = m_curl->easy_perform(m_handle);
    if (path == "/stop") m_sessionId = newSessionId();  // what plays next is a session of its own
    if (code != CURLE_OK) {
        LOG_ERR("curl_easy_perform() fail, err_code=%d", static_cast<int>(code));
        response.m_errMsg = m_curl->easy_strerror(code);
        return -1;
    }
    return parseResponseLocked(response, header, content);
}

int CurlWrapper::parseResponseLocked(Response& response, const std::string& header, const std::string& content) {
    long status = 0;
    if (m_curl->easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK) {
        LOG_ERR("curl_easy_getinfo, CURLINFO_RESPONSE_CODE fail.");
        return -1;
    }
    response.m_response = status;
    // The body as it came, whether or not the receiver gave its length.
    std::istringstream lines(content);
    std::string line;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.compare(0, 10, "duration: ") == 0) response.m_duration = Response::stringToF(line.substr(10));
        else if (line.compare(0, 10, "position: ") == 0) response.m_position = Response::stringToF(line.substr(10));
    }
    LOG_TRACK("header=\n%s\n", header.c_str());
    LOG_TRACK("content=\n%s\n", content.c_str());
    return 0;
}

int CurlWrapper::airplayPostPlay(Response& response, const std::string& url) {
    // Lines end in LF: a receiver that splits on LF alone would keep a CR in the URL.
    return request(response, Method::Post, "/play", "Content-Location: " + url + "\nStart-Position: 0.0\n",
                   "text/parameters");
}

int CurlWrapper::airplayPostRate(Response& response, float rate) {
    if (!(rate >= 0.0f && rate <= 1.0f)) {
        LOG_ERR("out of rate range, must between 0.0 - 1.0");
        return -1;
    }
    return request(response, Method::Post, "/rate?value=" + Response::fToString(rate));
}

int CurlWrapper::airplayPostScrub(Response& response, float seconds) {
    if (!(seconds >= 0.0f)) {
        LOG_ERR("seekTime can not be negative");
        return -1;
    }
    return request(response, Method::Post, "/scrub?position=" + Response::fToString(seconds));
}

int CurlWrapper::airplayGetScrub(Response& response) { return request(response, Method::Get, "/scrub"); }

int CurlWrapper::airplayPostStop(Response& response) { return request(response, Method::Post, "/stop"); }

int CurlWrapper::airplayPutPhoto(Response& response, const std::string& path) {
    return request(response, Method::Put, "/photo", {}, {}, path);
}

int CurlWrapper::airplayGetServerInfo(Response& response) { return request(response, Method::Get, "/server-info"); }

int CurlWrapper::airplayGetSlideshowFeature(Response& response) {
    return request(response, Method::Get, "/slideshow-features");
}

int CurlWrapper::airplayGetPlaybackInfo(Response& response) {
    return request(response, Method::Get, "/playback-info");
}

int CurlWrapper::airplayPostGetProperty(Response& response) {
    return request(response, Method::Post, "/getProperty?playbackAccessLog");
}
