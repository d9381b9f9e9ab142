// The host loop's tests run against the built driver, loaded as a host loads it, and
// the simulator on a loopback TCP port: the set-up they share, items and writes read as
// a user writes them, and a way to serve the loop until something is seen.
#ifndef RTUPLC_TESTS_HOST_FIXTURE_H
#define RTUPLC_TESTS_HOST_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "rtuplc_host/host.h"
#include "rtuplc_host/link.h"
#include "rtuplc_support/simulator.h"

class HostAgainstSimulator : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(rtuhost::loadDriver(RTUPLC_LIBRARY, &api, &why)) << why;
        catalogue = std::make_unique<rtuhost::Catalogue>(api); // items point into it
        sim.fill(rtusupport::Fill::Pattern);
        ASSERT_TRUE(sim.startTcp("127.0.0.1", 0, &why)) << why;
        link = rtuhost::makeTcpLink("127.0.0.1", sim.tcpPort());
    }

    std::vector<rtuhost::Item> items(const std::vector<const char *> &texts)
    {
        std::vector<rtuhost::Item> out(texts.size());
        QString error;
        for (size_t i = 0; i < texts.size(); ++i)
            EXPECT_TRUE(rtuhost::parseTimedItem(texts[i], 1, *catalogue, api, &out[i], &error)) << error.toStdString();
        return out;
    }
    rtuhost::WriteRequest request(const char *text)
    {
        rtuhost::WriteRequest w;
        QString error;
        EXPECT_TRUE(rtuhost::parseWrite(text, 1, *catalogue, api, &w, &error)) << error.toStdString();
        return w;
    }

    // Serves the loop until `done` or `most` has passed.
    template <class Done>
    void serve(rtuhost::Host &host, std::chrono::milliseconds most, Done done)
    {
        const auto until = rtuhost::Clock::now() + most;
        while (!done() && rtuhost::Clock::now() < until)
            host.step(stop);
    }

    rtuhost::DriverApi api;
    std::unique_ptr<rtuhost::Catalogue> catalogue;
    rtusupport::Simulator sim;
    std::unique_ptr<rtuhost::Link> link;
    rtuhost::HostSettings settings;
    std::atomic<bool> stop{false};
};

#endif
