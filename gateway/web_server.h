// The gateway's own web server: the live page, the JSON API under it and /metrics.
// It answers on its own threads and reads only the WebState the poll loop fills; a
// write from the page is queued for the loop and the request waits for its answer.
#ifndef RTUPLC_GATEWAY_WEB_SERVER_H
#define RTUPLC_GATEWAY_WEB_SERVER_H

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "broker.h"
#include "model.h"
#include "web_state.h"

namespace httplib {
class Server;
}

namespace rtugw {

class WebPage : public Sink {
public:
    WebPage(Model &model, const Broker &broker);
    ~WebPage() override;

    // The http section makes sense: anything but loopback needs a token. False with a
    // message naming the file and key.
    static bool checkConfig(const Config &config, std::string *error);
    // Listens, then serves on its own threads; false when the address cannot be taken.
    bool start(std::string *error);
    void stop();

    void valueChanged(size_t index) override;
    void stationChanged(int station) override;
    void tick() override;

private:
    void routes();
    void takeWrites();
    void observeCycles();
    void copyFigures();

    Model &model_;
    const Broker &broker_;
    WebState state_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::chrono::steady_clock::time_point lastFigures_{};
    std::chrono::steady_clock::time_point lastValues_{};
    uint64_t finishedSeen_ = 0;
    std::chrono::microseconds cycleSeen_{0};
    CycleHistogram cycle_;
};

// Compares a secret in a time that does not tell how much of it matched.
bool sameSecret(const std::string &given, const std::string &secret);
bool isLoopback(const std::string &host);

} // namespace rtugw

#endif
