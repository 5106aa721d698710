/*
 * Fixture of the tests that drive the real server end to end: a private
 * root, the BP simulator on its own thread linked at ROOT/dev/mux18, and the
 * host server as a child process, started in that order and stopped in the
 * reverse one.
 *
 * Base is the gtest class to derive from (::testing::TestWithParam<T> for
 * parameterised suites).
 */
#ifndef LAPITEST_SIMSERVERTEST_H
#define LAPITEST_SIMSERVERTEST_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "BpSim.h"
#include "LAPI_BpMsg.h"
#include "ServerFixture.h"

namespace lapitest {

/* The body of GET_STATUS_APBP_RES: its eight numbers, counting up from base. */
inline bpsim::Bytes StatusBody(int32_t base) {
    bpsim::Bytes b;
    for (int i = 0; i < 8; ++i) {
        bpsim::PutU32(&b, static_cast<uint32_t>(base + i));
    }
    return b;
}

template <class Base = ::testing::Test>
class SimServerTest : public Base {
  protected:
    /* The simulator's built-in location answers carry this fix. */
    explicit SimServerTest(const bpsim::Fix &fix = bpsim::Fix()) : sim_(SimOptions(root_, fix)) {}

    /* Files to write into the root before the simulator and the server
     * start. */
    virtual void PrepareRoot() {}

    void SetUp() override {
        ASSERT_TRUE(root_.ok());
        PrepareRoot();
        std::string error;
        ASSERT_TRUE(sim_.Open(&error)) << error;
        ASSERT_TRUE(sim_.StartThread());
        srv_ = std::make_unique<ServerProcess>(root_);
        ASSERT_TRUE(srv_->StartAndWaitReady());
    }

    void TearDown() override {
        if (srv_) {
            srv_->Stop();
            srv_.reset();
        }
        sim_.Close();
    }

    /* The BP's answer to one kind of request, built from the request. */
    void Answer(uint8_t subCmdId,
                std::function<std::vector<bpsim::Bytes>(const bpsim::Message &)> fn) {
        bpsim::Policy p;
        p.build = std::move(fn);
        sim_.SetPolicy(subCmdId, p);
    }
    /* GET_STATUS_APBP_REQ answered with the status numbers counting up
     * from base. */
    void AnswerStatus(int32_t base) {
        Answer(GET_STATUS_APBP_REQ, [base](const bpsim::Message &r) {
            return std::vector<bpsim::Bytes>{bpsim::MakeMsg(GET_STATUS_APBP_RES, r.SessionId(),
                                                            r.TransactionId(), StatusBody(base))};
        });
    }
    /* The BP records requests of this kind and never answers them. */
    void Silent(uint8_t subCmdId) {
        bpsim::Policy p;
        p.answer = bpsim::Answer::Silent;
        sim_.SetPolicy(subCmdId, p);
    }

    TempRoot root_;
    bpsim::Simulator sim_;
    std::unique_ptr<ServerProcess> srv_;

  private:
    static bpsim::Options SimOptions(const TempRoot &root, const bpsim::Fix &fix) {
        bpsim::Options o;
        o.root = root.Dir();
        o.fix = fix;
        return o;
    }
};

}  // namespace lapitest

#endif /* LAPITEST_SIMSERVERTEST_H */
