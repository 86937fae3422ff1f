// The example tracer of the documentation, against a running agent and its server.
#include <gtest/gtest.h>

#include <string>

#include "checks.h"
#include "process.h"
#include "stand_in.h"

namespace {

using namespace test_support;

int run_tracer(const agent& a) {
    const auto key = [&](const char* section, const char* keyword) { return a.value(section, keyword); };
    return run_program({TRACER_PROGRAM, key("IPC_SHARED_MEMORY", "TRAN_LOGF_QUE_INFO_SHMKEY"),
                        key("IPC_SHARED_MEMORY", "NOTI_SEND_QUE_SHMKEY"), key("IPC_SEMAPHORE", "NOTI_SEND_QUE_SEMKEY"),
                        "TRACED", "4321"})
        .status;
}

TEST(TracerExample, ReportsToTheServerWhileTracingIsOn) {
    kessctl::stand_in server;
    ASSERT_EQ(server.start(), "");
    agent a;
    a.set("TRAN_SERVER", "CMD_PORT", server.port());
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 3000);
    EXPECT_EQ(run_tracer(a), 1); // no shared memory yet
    ASSERT_NO_FATAL_FAILURE(start_running(a));
    ASSERT_NE(a.settings(), nullptr);
    EXPECT_EQ(run_tracer(a), 2);
    EXPECT_EQ(a.noti_que()->info.rear, 0);

    a.settings()->magic_code = TRACE_ON_MAGIC_CODE;
    EXPECT_EQ(run_tracer(a), 0);
    const auto message = server.wait_for(MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ);
    ASSERT_TRUE(message);
    const auto& body = message->frame.body.notify_active_service_detail_req;
    EXPECT_STREQ(body.element_num, "001");
    EXPECT_STREQ(body.elements[0].service_id, "TRACED          ");
    EXPECT_STREQ(body.elements[0].svc_elapsed_time, "0004321");
    EXPECT_STREQ(body.elements[0].call_seq, "000001");
}

} // namespace
