// Player commands called as the dispatcher calls them, on a manager whose players are test
// back-ends, over the simulated appliance (for the media agent) and a real playlist store.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "client/VelmoraClient.h"
#include "command/CommandTable.h"
#include "command/StatusCache.h"
#include "unit/support/Players.h"
#include "unit/support/SimRoot.h"

using FakePlayer = testsupport::FakePlayer;
using TestManager = testsupport::FakeManager;
using testsupport::file;
using testsupport::makePlaylist;

class CommandTest : public testsupport::SimRootTest {
protected:
    void SetUp() override {
        SimRootTest::SetUp();
        StatusCache::instance().clear();
        s_now = 1'000'000;
        StatusCache::instance().setClock([] { return s_now; });
        CPlayerManager::setSettleDelays(std::chrono::milliseconds(0), std::chrono::milliseconds(0));
        manager = std::make_unique<TestManager>();
    }
    void TearDown() override {
        manager.reset();
        StatusCache::instance().setClock(nullptr);
        SimRootTest::TearDown();
    }

    // Runs a command through the table as the dispatcher does; the answer lands in `answer`.
    int run(const std::string& command, const vclient::Params& params = {}) {
        XMLNode request = XMLNode::parseString(vclient::buildRequest(command, params), "root");
        answer = XMLNode();
        commandHandler_t handler = findCommand(command.c_str());
        EXPECT_NE(handler, nullptr) << command;
        return handler ? handler(*manager, request, answer) : -7;
    }
    // The same, addressed to the render "uuid:tv".
    int runTv(const std::string& command, vclient::Params params = {}) {
        params.insert(params.begin(), {"dev", "uuid:tv"});
        return run(command, params);
    }
    const char* field(const char* name) { return answer.getChildNode(name).getText(); }
    // Lists the render and gives it a player on the playlist, as a client would.
    FakePlayer* playerOn(const std::string& id, const std::string& playlist = "none",
                         uint32_t type = playertype::kDlna | playertype::kCapVideo | playertype::kCapAudio) {
        manager->list(id, type);
        EXPECT_EQ(run("SetPlaylist", {{"dev", id}, {"playlist", playlist}, {"appType", "music"}}), 0);
        return manager->player(id);
    }

    // Media-agent runs of command (with argument, when given) since the test began.
    int agentCalls(const std::string& command, const std::string& argument = "") const {
        return callLog.count("tessaly", argument.empty() ? std::vector<std::string>{command} : std::vector{command, argument});
    }

    static inline time_t s_now = 0;
    std::unique_ptr<TestManager> manager;
    XMLNode answer;
};
