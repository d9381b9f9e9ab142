// The gateway's Modbus server takes bytes from any master on the network: whatever they
// are, cutting them into Modbus TCP frames and judging each request never reads past
// what came, and a request judged servable always makes a frame the line's reply
// matcher knows the answer to. A request that fails that would reach the controller
// malformed, or leave the line waiting for an answer it cannot recognise.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "modbus_pdu.h"
#include "rtuplc_link.h"

using namespace rtugw;

namespace {

void check(bool ok)
{
    if (!ok)
        std::abort();
}

void judge(const uint8_t *pdu, size_t n)
{
    mb::Request r;
    if (mb::checkPdu(pdu, n, &r) != 0)
        return;
    const long limit = r.write ? (r.table == mb::Table::Coils ? mb::kMaxWriteBits : mb::kMaxWriteRegisters)
                               : (r.table == mb::Table::Coils || r.table == mb::Table::Discrete ? mb::kMaxReadBits
                                                                                                : mb::kMaxReadRegisters);
    check(r.quantity >= 1 && r.quantity <= limit);
    check(long(r.address) + r.quantity <= mb::kAddressSpace);
    std::vector<uint8_t> frame;
    mb::appendRtu(frame, 1, pdu, n);
    check(rtuplc::answerLength(frame.data(), frame.size()) > 0);
    check(rtuplc::crcMatches(frame.data(), frame.size()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The whole input as a PDU, as an RTU listener hands it on after the CRC.
    judge(data, size);
    // And as a TCP stream of frames, cut as the TCP listener cuts it.
    size_t at = 0;
    while (at < size) {
        mb::Mbap m;
        const mb::Cut cut = mb::cutMbap(data + at, size - at, &m);
        if (cut != mb::Cut::Frame)
            break;
        check(m.frameBytes > 0 && m.frameBytes <= size - at);
        check(m.pdu >= data + at && m.pdu + m.pduBytes <= data + at + m.frameBytes);
        judge(m.pdu, m.pduBytes);
        at += m.frameBytes;
    }
    return 0;
}
