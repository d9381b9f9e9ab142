#include "rtuplc_support/simulator.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include "rtuplc_support/modbus.h"
#include "simulator_impl.h"

namespace rtusupport {

namespace {

constexpr std::chrono::milliseconds kAnimationTick{250};
constexpr uint32_t kCounterRegister = 0; // D 0
constexpr uint32_t kToggleCoil = 2000;   // M 0
constexpr int kToggleTicks = 4;
constexpr uint32_t kRampRegister = 9700; // 32-bit counter 200, high register first
constexpr uint32_t kRampStep = 1000;
constexpr uint32_t kRampTop = 100000;

std::string hex(const std::vector<uint8_t> &bytes)
{
    std::string s;
    char b[4];
    for (uint8_t v : bytes) {
        snprintf(b, sizeof b, "%02X ", v);
        s += b;
    }
    if (!s.empty())
        s.pop_back();
    return s;
}

} // namespace

// ---------------------------------------------------------------------------------
// Stop signal.

bool StopSignal::open()
{
    return ::pipe(fds_) == 0;
}

void StopSignal::raise()
{
    if (fds_[1] >= 0) {
        const char b = 1;
        [[maybe_unused]] ssize_t n = ::write(fds_[1], &b, 1);
    }
}

void StopSignal::close()
{
    for (int &fd : fds_) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}

bool StopSignal::waitFor(std::chrono::microseconds d) const
{
    pollfd p{fds_[0], POLLIN, 0};
    return ::poll(&p, 1, static_cast<int>((d.count() + 999) / 1000)) > 0;
}

// ---------------------------------------------------------------------------------
// Serving a frame.

StationMemory &Simulator::Impl::stationMemory(int station)
{
    // A station made silent keeps its memory, and runs on: its values may change
    // while nobody can read them.
    const auto found = memory.find(station);
    if (found == memory.end())
        throw std::out_of_range("station " + std::to_string(station) + " is not simulated");
    return found->second;
}

const StationMemory &Simulator::Impl::stationMemory(int station) const
{
    return const_cast<Impl *>(this)->stationMemory(station);
}

uint8_t Simulator::Impl::refusalFor(int station, const uint8_t *pdu, size_t pduBytes) const
{
    constexpr size_t kAddressAndQuantityBytes = 5; // function, address, quantity or value
    if (refusals.empty() || pduBytes < kAddressAndQuantityBytes)
        return 0;
    const uint8_t f = pdu[0];
    const bool coils = f == rtuplc::kReadCoils || f == rtuplc::kWriteSingleCoil || f == rtuplc::kWriteMultipleCoils;
    const bool registers = f == rtuplc::kReadHoldingRegisters || f == rtuplc::kWriteSingleRegister ||
                           f == rtuplc::kWriteMultipleRegisters;
    if (!coils && !registers)
        return 0;
    const uint32_t first = uint32_t(pdu[1] << 8 | pdu[2]);
    // A single write carries a value where the others carry a quantity.
    const bool single = f == rtuplc::kWriteSingleCoil || f == rtuplc::kWriteSingleRegister;
    const uint32_t count = single ? 1 : uint32_t(pdu[3] << 8 | pdu[4]);
    const Space space = coils ? Space::Coils : Space::Registers;
    for (const Refusal &r : refusals) {
        if (r.station == station && r.space == space && first < r.first + r.count && r.first < first + count)
            return r.code;
    }
    return 0;
}

void Simulator::Impl::churnRead(StationMemory &m, const uint8_t *pdu)
{
    const bool coils = pdu[0] == rtuplc::kReadCoils;
    if (!coils && pdu[0] != rtuplc::kReadHoldingRegisters)
        return;
    const uint32_t first = uint32_t(pdu[1] << 8 | pdu[2]);
    const uint32_t count = uint32_t(pdu[3] << 8 | pdu[4]);
    for (uint32_t a = first; a < first + count && a < kAddressSpace; ++a) {
        if (coils)
            m.coils[a] ^= 1;
        else
            ++m.registers[a];
    }
}

void Simulator::Impl::logFrame(const char *direction, const std::vector<uint8_t> &bytes)
{
    std::lock_guard<std::mutex> lock(logMutex);
    if (log)
        log(std::string(direction) + " " + hex(bytes));
}

std::optional<Simulator::Impl::Answer> Simulator::Impl::serve(const std::vector<uint8_t> &frame)
{
    ++counters.requests;
    logFrame("rx", frame);
    const int station = frame[0];
    const uint8_t *pdu = frame.data() + 1;
    const size_t pduBytes = frame.size() - 1 - rtuplc::kCrcBytes;

    if (station == kBroadcastStation) {
        // Everybody listens to a broadcast and nobody answers it.
        ++counters.broadcasts;
        if (rtuplc::isWriteFunction(pdu[0])) {
            std::lock_guard<std::mutex> lock(memoryMutex);
            for (int s : stations)
                executeRequest(memory.at(s), pdu, pduBytes, limits);
            ++counters.writes;
        }
        return std::nullopt;
    }

    bool drop, executeDropped, refuse, corrupt, late, doubled, foreign, noise, split, wrongFunction;
    size_t flipBit = 0;
    std::chrono::microseconds delay, lateBy;
    std::optional<SerialLine> pacing;
    std::vector<uint8_t> noiseBytes;
    std::vector<std::chrono::microseconds> gaps; // between pieces: the copy, the splits
    std::vector<size_t> cuts;
    {
        std::lock_guard<std::mutex> lock(faultMutex);
        std::uniform_real_distribution<double> p(0.0, 1.0);
        drop = p(random) < faults.drop;
        executeDropped = p(random) < 0.5;
        refuse = p(random) < faults.exception;
        corrupt = p(random) < faults.corrupt;
        flipBit = std::uniform_int_distribution<size_t>(0, 8 * rtuplc::kMaxFrameBytes)(random);
        delay = std::chrono::milliseconds(faults.delayMs);
        // The fields added later are drawn only when set, so that old seeds repeat.
        const auto draw = [&](double q) { return q > 0 && p(random) < q; };
        late = draw(faults.late);
        lateBy = std::chrono::milliseconds(faults.lateByMs);
        doubled = draw(faults.doubled);
        foreign = draw(faults.foreign);
        noise = draw(faults.noise);
        split = draw(faults.split);
        wrongFunction = draw(faults.wrongFunction);
        std::uniform_int_distribution<int> byte(0, 255), ms(1, 5);
        if (noise)
            noiseBytes.resize(size_t(std::uniform_int_distribution<int>(1, 8)(random)));
        for (uint8_t &b : noiseBytes)
            b = uint8_t(byte(random));
        for (int i = 0; i < 4; ++i) {
            gaps.push_back(std::chrono::milliseconds(ms(random)));
            cuts.push_back(size_t(byte(random)));
        }
        if (split)
            cuts.resize(size_t(std::uniform_int_distribution<int>(1, 3)(random)));
        pacing = this->pacing;
    }

    std::vector<uint8_t> reply{static_cast<uint8_t>(station)};
    {
        std::lock_guard<std::mutex> lock(memoryMutex);
        if (std::find(stations.begin(), stations.end(), station) == stations.end()) {
            ++counters.otherStations; // another slave's business
            return std::nullopt;
        }
        if (drop && !executeDropped) {
            ++counters.dropped;
            return std::nullopt;
        }
        std::vector<uint8_t> pduReply;
        const uint8_t refusedWith = refusalFor(station, pdu, pduBytes);
        if (foreign && !refuse && refusedWith == 0) {
            // Another slave answers in its stead: the next simulated station, or one
            // past it with the pattern, with its own data for the same request.
            auto next = std::find(stations.begin(), stations.end(), station);
            int other = std::next(next) != stations.end() ? *std::next(next) : stations.front();
            StationMemory scratch;
            StationMemory *m = nullptr;
            if (other == station) {
                other = station % kHighestStation + 1;
                fillMemory(scratch, other, Fill::Pattern);
                m = &scratch;
            } else {
                m = &memory.at(other);
            }
            if (rtuplc::isWriteFunction(pdu[0]))
                pduReply.assign(pdu, pdu + 5); // the echo, without writing anything
            else
                pduReply = executeRequest(*m, pdu, pduBytes, limits);
            ++counters.foreign;
            reply[0] = static_cast<uint8_t>(other);
            reply.insert(reply.end(), pduReply.begin(), pduReply.end());
            appendCrc(reply);
            return Answer{{Piece{reply, delay}}};
        }
        if (refusedWith != 0)
            pduReply = {static_cast<uint8_t>(pdu[0] | rtuplc::kExceptionFlag), refusedWith};
        else if (refuse)
            pduReply = {static_cast<uint8_t>(pdu[0] | rtuplc::kExceptionFlag), ex::kDeviceBusy};
        else
            pduReply = executeRequest(memory.at(station), pdu, pduBytes, limits);
        if (churn && !(pduReply[0] & rtuplc::kExceptionFlag))
            churnRead(memory.at(station), pdu);
        if (!(pduReply[0] & rtuplc::kExceptionFlag) && rtuplc::isWriteFunction(pdu[0]))
            ++counters.writes;
        if (drop) {
            ++counters.dropped;
            return std::nullopt;
        }
        if (pduReply[0] & rtuplc::kExceptionFlag)
            ++counters.exceptions;
        reply.insert(reply.end(), pduReply.begin(), pduReply.end());
    }
    if (wrongFunction) {
        reply[1] ^= 0x04; // 03 becomes 07, 10 becomes 14: a function nobody asked for
        ++counters.wrongFunction;
    }
    appendCrc(reply);
    if (corrupt) {
        const size_t bit = flipBit % (8 * reply.size());
        reply[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
        ++counters.corrupted;
    }
    if (pacing)
        delay += characterTime(*pacing) * int64_t(frame.size() + reply.size());
    if (late) {
        delay += lateBy;
        ++counters.late;
    }
    Answer answer;
    if (noise) {
        answer.pieces.push_back(Piece{noiseBytes, delay});
        delay = std::chrono::microseconds(0);
        ++counters.noise;
    }
    // Cut points inside the reply, in order; none unless split.
    std::vector<size_t> at;
    for (size_t c : (split ? cuts : std::vector<size_t>{}))
        at.push_back(1 + c % (reply.size() - 1));
    std::sort(at.begin(), at.end());
    at.erase(std::unique(at.begin(), at.end()), at.end());
    if (!at.empty())
        ++counters.split;
    size_t from = 0;
    for (size_t i = 0; i <= at.size(); ++i) {
        const size_t to = i < at.size() ? at[i] : reply.size();
        answer.pieces.push_back(
            Piece{{reply.begin() + long(from), reply.begin() + long(to)}, i == 0 ? delay : gaps[i]});
        from = to;
    }
    if (doubled) {
        answer.pieces.push_back(Piece{reply, gaps[0]});
        ++counters.doubled;
    }
    return answer;
}

// ---------------------------------------------------------------------------------
// Threads.

void Simulator::Impl::startThread(std::function<void()> body)
{
    threads.emplace_back(std::move(body));
}

void Simulator::Impl::ensureThreadsStarted()
{
    if (!threads.empty())
        return;
    startThread([this] { animateLoop(); });
}

void Simulator::Impl::animateLoop()
{
    for (uint64_t tick = 0; !stop.waitFor(kAnimationTick); ++tick) {
        if (!animate)
            continue;
        std::lock_guard<std::mutex> lock(memoryMutex);
        for (int s : stations) {
            StationMemory &m = memory.at(s);
            m.registers[kCounterRegister] = static_cast<uint16_t>(m.registers[kCounterRegister] + 1);
            if (tick % kToggleTicks == 0)
                m.coils[kToggleCoil] ^= 1;
            uint32_t ramp = (uint32_t(m.registers[kRampRegister]) << 16) | m.registers[kRampRegister + 1];
            ramp = (ramp + kRampStep) % kRampTop;
            m.registers[kRampRegister] = static_cast<uint16_t>(ramp >> 16);
            m.registers[kRampRegister + 1] = static_cast<uint16_t>(ramp & 0xFFFF);
        }
    }
}

// ---------------------------------------------------------------------------------
// Public API.

Simulator::Simulator() : impl_(std::make_unique<Impl>())
{
    impl_->memory[1] = StationMemory();
}

Simulator::~Simulator()
{
    stop();
}

void Simulator::setStations(const std::vector<int> &stations)
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    for (int s : stations) {
        if (s < 1 || s > kHighestStation)
            throw std::out_of_range("station " + std::to_string(s) + " is not 1..247");
        if (impl_->memory.count(s) == 0)
            fillMemory(impl_->memory[s], s, impl_->fillKind);
    }
    impl_->stations = stations;
}

std::vector<int> Simulator::stations() const
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    return impl_->stations;
}

void Simulator::fill(Fill fill)
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    impl_->fillKind = fill;
    for (auto &entry : impl_->memory)
        fillMemory(entry.second, entry.first, fill);
}

void Simulator::setFaults(const Faults &faults)
{
    std::lock_guard<std::mutex> lock(impl_->faultMutex);
    impl_->faults = faults;
}

void Simulator::setSeed(uint64_t seed)
{
    std::lock_guard<std::mutex> lock(impl_->faultMutex);
    impl_->random.seed(seed);
}

void Simulator::setLimits(const Limits &limits)
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    impl_->limits = limits;
}

void Simulator::setChurn(bool on)
{
    impl_->churn = on;
}

void Simulator::setAnimate(bool on)
{
    if (on && !impl_->animate) {
        // The moving values start from zero, whatever the fill put there.
        std::lock_guard<std::mutex> lock(impl_->memoryMutex);
        for (int s : impl_->stations) {
            StationMemory &m = impl_->memory.at(s);
            m.registers[kCounterRegister] = 0;
            m.coils[kToggleCoil] = 0;
            m.registers[kRampRegister] = 0;
            m.registers[kRampRegister + 1] = 0;
        }
    }
    impl_->animate = on;
}

void Simulator::setPacing(const std::optional<SerialLine> &line)
{
    std::lock_guard<std::mutex> lock(impl_->faultMutex);
    impl_->pacing = line;
}

void Simulator::setLog(std::function<void(const std::string &)> log)
{
    std::lock_guard<std::mutex> lock(impl_->logMutex);
    impl_->log = std::move(log);
}

void Simulator::setReplySent(ReplySent hook)
{
    std::lock_guard<std::mutex> lock(impl_->logMutex);
    impl_->replySent = std::move(hook);
}

int Simulator::tcpPort() const
{
    std::lock_guard<std::mutex> lock(impl_->endpointMutex);
    return impl_->tcpPort;
}

std::string Simulator::ptyPath() const
{
    std::lock_guard<std::mutex> lock(impl_->endpointMutex);
    return impl_->ptyPath;
}

void Simulator::stop()
{
    std::lock_guard<std::mutex> lock(impl_->endpointMutex);
    impl_->stop.raise();
    for (std::thread &t : impl_->threads)
        t.join();
    impl_->threads.clear();
    for (int fd : impl_->ownedFds)
        ::close(fd);
    impl_->ownedFds.clear();
    impl_->stop.close();
}

bool Simulator::running() const
{
    std::lock_guard<std::mutex> lock(impl_->endpointMutex);
    return !impl_->threads.empty();
}

uint16_t Simulator::reg(int station, uint32_t address) const
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    return impl_->stationMemory(station).registers.at(address);
}

void Simulator::setReg(int station, uint32_t address, uint16_t value)
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    impl_->stationMemory(station).registers.at(address) = value;
}

uint32_t Simulator::reg32(int station, uint32_t address) const
{
    return (uint32_t(reg(station, address)) << 16) | reg(station, address + 1);
}

void Simulator::setRegs(int station, uint32_t address, const std::vector<uint16_t> &values)
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    std::vector<uint16_t> &registers = impl_->stationMemory(station).registers;
    if (address + values.size() > registers.size())
        throw std::out_of_range("registers " + std::to_string(address) + ".." +
                                std::to_string(address + values.size() - 1) + " do not exist");
    std::copy(values.begin(), values.end(), registers.begin() + address);
}

void Simulator::setReg32(int station, uint32_t address, uint32_t value)
{
    setRegs(station, address, {static_cast<uint16_t>(value >> 16), static_cast<uint16_t>(value & 0xFFFF)});
}

bool Simulator::coil(int station, uint32_t address) const
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    return impl_->stationMemory(station).coils.at(address) != 0;
}

void Simulator::setCoil(int station, uint32_t address, bool on)
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    impl_->stationMemory(station).coils.at(address) = on ? 1 : 0;
}

void Simulator::refuse(int station, Space space, uint32_t first, uint32_t count, uint8_t code)
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    std::vector<Refusal> &list = impl_->refusals;
    if (code == 0) {
        list.erase(std::remove_if(list.begin(), list.end(),
                                  [&](const Refusal &r) {
                                      return r.station == station && r.space == space && first < r.first + r.count &&
                                             r.first < first + count;
                                  }),
                   list.end());
        return;
    }
    list.push_back(Refusal{station, space, first, count, code});
}

void Simulator::accept(int station)
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    std::vector<Refusal> &list = impl_->refusals;
    list.erase(std::remove_if(list.begin(), list.end(), [&](const Refusal &r) { return r.station == station; }),
               list.end());
}

Counters Simulator::counters() const
{
    const AtomicCounters &c = impl_->counters;
    Counters r;
    r.requests = c.requests;
    r.replies = c.replies;
    r.exceptions = c.exceptions;
    r.writes = c.writes;
    r.broadcasts = c.broadcasts;
    r.otherStations = c.otherStations;
    r.dropped = c.dropped;
    r.corrupted = c.corrupted;
    r.discarded = c.discarded;
    r.late = c.late;
    r.doubled = c.doubled;
    r.foreign = c.foreign;
    r.noise = c.noise;
    r.split = c.split;
    r.wrongFunction = c.wrongFunction;
    return r;
}

std::string Simulator::dump() const
{
    std::lock_guard<std::mutex> lock(impl_->memoryMutex);
    std::ostringstream out;
    const bool pattern = impl_->fillKind == Fill::Pattern;
    for (int s : impl_->stations) {
        const StationMemory &m = impl_->memory.at(s);
        for (uint32_t a = 0; a < kAddressSpace; ++a) {
            const uint8_t fillCoil = pattern ? patternCoil(s, a) : 0;
            if (m.coils[a] != fillCoil)
                out << s << " coil " << a << ' ' << describeAddress(Space::Coils, a) << " = " << int(m.coils[a])
                    << '\n';
        }
        for (uint32_t a = 0; a < kAddressSpace; ++a) {
            const uint16_t fillRegister = pattern ? patternRegister(s, a) : 0;
            if (m.registers[a] != fillRegister)
                out << s << " register " << a << ' ' << describeAddress(Space::Registers, a) << " = " << m.registers[a]
                    << '\n';
        }
    }
    return out.str();
}

} // namespace rtusupport
