// The AirPlay HTTP client against the simulated receiver, over real HTTP on loopback.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "output/airplay/AirPlayService.h"
#include "SimReceiver.h"

namespace {

using namespace std::chrono_literals;
using airplaytest::SimReceiver;

// The request lines of the receiver's log carry method, path, content type, agent and body.
bool has(const std::string& line, const std::string& field) { return line.find(field) != std::string::npos; }

class AirPlayServiceTest : public ::testing::Test {
protected:
    void SetUp() override { CurlWrapper::setTimeouts(2000ms, 3000ms); }
    void TearDown() override { CurlWrapper::setTimeouts(3000ms, 5000ms); }
};

TEST_F(AirPlayServiceTest, EachOperationAndAPhotoUploadIsOneRequestOfItsOwnShape) {
    SimReceiver rx(120.5);
    AirPlayService service("uuid:tv", "127.0.0.1", rx.port(), "TV");
    Response r;

    ASSERT_EQ(service.getPosInfo(r), 0);
    EXPECT_EQ(r.m_response, 405) << "an idle receiver";

    ASSERT_EQ(service.setContentUrl(r, "http://10.0.0.2:8080/a b/Ünïcode \"q\".mp4"), 0);
    EXPECT_EQ(r.m_response, 200);
    ASSERT_EQ(service.seek(r, 33.25f), 0);
    ASSERT_EQ(service.getPosInfo(r), 0);  // a status after a seek is a GET again
    EXPECT_FLOAT_EQ(r.m_duration, 120.5f);
    EXPECT_GE(r.m_position, 33.25f);
    ASSERT_EQ(service.pause(r), 0);
    ASSERT_EQ(service.play(r), 0);
    ASSERT_EQ(service.stop(r), 0);

    // Lines end in LF only, and the URL arrives intact; nothing of the seek's body carries over
    // to the status after it.
    const std::pair<const char*, const char*> shapes[] = {
        {R"("method": "GET", "path": "/scrub")", ""},
        {R"("method": "POST", "path": "/play", "type": "text/parameters")",
         R"("body": "Content-Location: http://10.0.0.2:8080/a b/Ünïcode \"q\".mp4\nStart-Position: 0.0\n")"},
        {R"("method": "POST", "path": "/scrub?position=33.25")", ""},
        {R"("method": "GET", "path": "/scrub")", R"("size": 0)"},
        {R"("method": "POST", "path": "/rate?value=0")", ""},
        {R"("method": "POST", "path": "/rate?value=1")", ""},
        {R"("method": "POST", "path": "/stop")", ""},
    };
    std::vector<std::string> seen = rx.takeRequests();
    ASSERT_EQ(seen.size(), std::size(shapes));
    // One session from the first request to the stop; after it, a new one.
    const size_t at = seen[0].find(R"("session": ")");
    ASSERT_NE(at, std::string::npos) << seen[0];
    const std::string session = seen[0].substr(at, 12 + 36 + 1);  // "session": "UUID"
    EXPECT_EQ(session.back(), '"') << seen[0];
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_TRUE(has(seen[i], shapes[i].first) && has(seen[i], shapes[i].second)) << seen[i];
        EXPECT_TRUE(has(seen[i], R"("agent": "MediaControl/1.0")")) << seen[i];
        EXPECT_TRUE(has(seen[i], session)) << seen[i];
    }
    ASSERT_EQ(service.getPosInfo(r), 0);
    const std::vector<std::string> after = rx.takeRequests();
    ASSERT_EQ(after.size(), 1u);
    EXPECT_TRUE(has(after[0], R"("session": ")") && !has(after[0], session)) << after[0];

    // A photo is uploaded, and the next request is no upload.
    testsupport::TempDir dir("velmora-photo");
    ASSERT_TRUE(testsupport::writeFile(dir.path() + "/a photo.jpg", std::string(5000, 'x')));
    ASSERT_EQ(service.playPhoto(r, dir.path() + "/a photo.jpg"), 0);
    ASSERT_EQ(service.getPosInfo(r), 0);
    EXPECT_EQ(service.playPhoto(r, dir.path() + "/missing.jpg"), -1);
    seen = rx.takeRequests();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_TRUE(has(seen[0], R"("method": "PUT", "path": "/photo")") && has(seen[0], R"("size": 5000)")) << seen[0];
    EXPECT_TRUE(has(seen[1], R"("method": "GET", "path": "/scrub")")) << seen[1];
}

TEST_F(AirPlayServiceTest, RefusingSilentAndAbsentReceiversFailWithinTheTimeOut) {
    SimReceiver rx;
    AirPlayService service("uuid:tv", "127.0.0.1", rx.port(), "TV");
    Response r;
    rx.setSwitches(R"({"password": true})");
    ASSERT_EQ(service.setContentUrl(r, "http://x/y"), 0);
    EXPECT_EQ(r.m_response, 401) << "the status is the player's to judge";

    rx.setSwitches(R"({"huge": true})");
    EXPECT_EQ(service.getPosInfo(r), -1) << "an answer past the cap is not kept";

    rx.setSwitches(R"({"silent": true})");
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(service.getPosInfo(r), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 30s);

    // Nobody listens on the port any more.
    AirPlayService gone("uuid:tv", "127.0.0.1", 1, "TV");
    EXPECT_EQ(gone.stop(r), -1);
}

}  // namespace
