// A host built outside the source tree against the installed driver (CMake package or
// pkg-config): it links the library, polls D_W:0..3 of rtuplc-sim once over TCP and
// prints the values. The simulator's memory holds each register's own address.
#include <rtuplc.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PORT (of rtuplc-sim on 127.0.0.1)\n", argv[0]);
        return 2;
    }
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sim{};
    sim.sin_family = AF_INET;
    sim.sin_port = htons(uint16_t(std::atoi(argv[1])));
    sim.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&sim), sizeof sim) != 0) {
        std::perror("connect");
        return 1;
    }
    timeval timeout{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    static unsigned char memory[65536];
    static unsigned short recipe[1024];
    int err = 0;
    intf_initProperty(memory, 0, recipe, &err, "1#0#0#3#64", nullptr);
    KEY_ADDRESS key;
    key.station = 1;
    key.regName = "D_W";
    key.len = 4;
    QList<KEY_ADDRESS> list{key};
    if (intf_addrMerge(list) != 1)
        return 1;

    for (int frames = 0; frames < 20; ++frames) {
        FRAME_PRO f;
        if (!intf_getSendFrame(f))
            continue;
        QByteArray reply;
        if (f.frameLen > 0 && write(fd, f.frame, size_t(f.frameLen)) == f.frameLen) {
            char buf[300];
            while (reply.size() < f.replyLen) {
                const ssize_t n = read(fd, buf, size_t(f.replyLen - reply.size()));
                if (n <= 0)
                    break;
                reply.append(buf, int(n));
            }
        }
        QString what;
        const int result = intf_dealRcvFrame(reply, what);
        if (result == 2) {
            std::fprintf(stderr, "request %s failed\n", qPrintable(what));
            return 1;
        }
        if (result != 1 || f.reqKind != 4)
            continue;
        unsigned char v[8];
        intf_getData(1, "D_W", 0, 4, v);
        std::printf("rtuplc %s: D_W:0..3 =", qPrintable(intf_getVersion()));
        bool pattern = true;
        for (int i = 0; i < 4; ++i) {
            const int value = v[2 * i] | v[2 * i + 1] << 8;
            std::printf(" %d", value);
            pattern = pattern && value == i;
        }
        std::printf("\n");
        return pattern ? 0 : 1;
    }
    std::fprintf(stderr, "no reply to the poll of D_W:0..3\n");
    return 1;
}
