// A card for vsmartcard's virtual reader (vpcd): connects to the reader's port on the loopback
// interface and answers its requests with a chosen ATR, so PC/SC sees a card inserted for as
// long as this program runs. Usage: vantro_virtual_card <port> <atr-hex>
//
// The reader sends frames of a 2-byte big-endian length and a body. A 1-byte body is a
// control request (0 power off, 1 power on, 2 reset, 4 send the ATR); anything longer is an
// APDU, answered "instruction not supported" (6D 00).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr unsigned char kGetAtr = 4;

bool readExactly(int fd, unsigned char* data, size_t size)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, data + done, size - done);
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

bool sendFrame(int fd, const std::vector<unsigned char>& body)
{
    std::vector<unsigned char> frame{static_cast<unsigned char>(body.size() >> 8),
                                     static_cast<unsigned char>(body.size() & 0xff)};
    frame.insert(frame.end(), body.begin(), body.end());
    return ::write(fd, frame.data(), frame.size()) == ssize_t(frame.size());
}

std::vector<unsigned char> fromHex(const std::string& hex)
{
    std::vector<unsigned char> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

int connectTo(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // The reader may still be starting: try for ten seconds.
    for (int attempt = 0; attempt < 100; ++attempt) {
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
            return fd;
        ::usleep(100000);
    }
    return -1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <port> <atr-hex>\n", argv[0]);
        return 2;
    }
    const std::vector<unsigned char> atr = fromHex(argv[2]);
    const int fd = connectTo(std::atoi(argv[1]));
    if (fd < 0) {
        std::perror("connect to the virtual reader");
        return 1;
    }
    for (;;) {
        unsigned char header[2];
        if (!readExactly(fd, header, 2))
            return 0;
        std::vector<unsigned char> body((size_t(header[0]) << 8) | header[1]);
        if (!readExactly(fd, body.data(), body.size()))
            return 0;
        if (body.size() == 1 && body[0] != kGetAtr)
            continue;
        if (!sendFrame(fd, body.size() == 1 ? atr : std::vector<unsigned char>{0x6d, 0x00}))
            return 0;
    }
}
