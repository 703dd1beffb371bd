// The DLNA player as the manager sees it: created through the real back-end factory for a
// renderer the listing found, retired when the renderer stays away from four listings, and
// revived with its queue when it comes back.
#include "DlnaTestSupport.h"
#include "client/VelmoraClient.h"
#include "discovery/RenderListing.h"
#include "output/BackendTable.h"
#include "player/CPlayerManager.h"
#include "thread/ThreadLock.h"

namespace dlnatest {
namespace {

class ExposedManager : public CPlayerManager {
public:
    ExposedManager() : CPlayerManager(std::make_shared<BackendTable>(), 3600) {}
    CPlayer* created(const std::string& id) {
        ThreadReadLock lock(getRWLock());
        return findCreatedPlayerLocked(id);
    }
    size_t retired() {
        ThreadReadLock lock(getRWLock());
        return m_playerReclaimCacheVec.size();
    }
};

time_t g_now = 1'000'000;

class DlnaManagerTest : public DlnaTest {
protected:
    void SetUp() override {
        DlnaTest::SetUp();
        CPlayerManager::setSettleDelays(milliseconds(0), milliseconds(0));
        renderlisting::resetCache();
        renderlisting::setClock([] { return g_now; });
    }
    void TearDown() override {
        renderlisting::setClock(nullptr);
        renderlisting::resetCache();
        CPlayerManager::setSettleDelays(milliseconds(3000), milliseconds(1000));
        DlnaTest::TearDown();
    }
    // One ListRender of the DLNA renderers, past the listing cache's lifetime.
    static void listRenderers(CPlayerManager& manager) {
        g_now += renderlisting::kRefreshSeconds + 1;
        XMLNode request = XMLNode::parseString(vclient::buildRequest("ListRender", {{"renderType", "dlna"}}), "root");
        XMLNode answer;
        ASSERT_EQ(list_render(manager, request, answer), 0);
    }
};

TEST_F(DlnaManagerTest, AbsentRendererRetiresItsPlayerAndSetPlaylistRevivesIt) {
    makePlaylist("trip", {object("mu_101"), object("mu_102")});
    auto manager = std::make_unique<ExposedManager>();
    listRenderers(*manager);
    ASSERT_EQ(manager->setPlaylist(kTvId, "trip", "music"), 0);
    CPlayer* made = manager->created(kTvId);
    ASSERT_NE(made, nullptr);
    ASSERT_NE(dynamic_cast<CDlnaPlayer*>(made), nullptr);
    EXPECT_EQ(made->getIP(), "192.168.1.30");
    EXPECT_EQ(made->getPlaylistSize(), 2u);

    // Three listings without it are forgiven; the fourth retires the player.
    ASSERT_TRUE(renderer(kTvId, {"present=0"}));
    for (int pass = 1; pass <= 4; ++pass) {
        listRenderers(*manager);
        manager->housekeepingPass();
        EXPECT_EQ(manager->getNumOfPlayer(), pass < 4 ? 1u : 0u) << "pass " << pass;
    }
    EXPECT_EQ(manager->retired(), 1u);
    EXPECT_FALSE(dynamic_cast<CDlnaPlayer*>(made)->isMonitoring());
    EXPECT_EQ(made->getPlayerState(), STATE_STOP_E);

    // Back again: the same player, with its queue, plays.
    ASSERT_TRUE(renderer(kTvId, {"present=1"}));
    listRenderers(*manager);
    ASSERT_EQ(manager->setPlaylist(kTvId, "trip", "music"), 0);
    EXPECT_EQ(manager->created(kTvId), made);
    EXPECT_EQ(manager->retired(), 0u);
    EXPECT_EQ(made->getPlaylistSize(), 2u);
    {
        ThreadSingleLock lock(made->getLock());
        ASSERT_EQ(made->play(), 0);
    }
    EXPECT_TRUE(waitFor([&] { return rendererState() == "PLAYING"; }, seconds(10)));
    manager.reset();
    EXPECT_EQ(rendererState(), "STOPPED");
}

}  // namespace
}  // namespace dlnatest
