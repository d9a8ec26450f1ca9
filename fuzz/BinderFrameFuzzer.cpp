// Socket frames into the host Binder runtime. The fuzzer publishes a service in a directory of
// its own; each input is written on a fresh raw connection to it (the first byte says how many
// descriptors ride with the first bytes, as SCM_RIGHTS: bits 0-1 the number of /dev/null
// descriptors; with bit 2 set a sealed memfd comes first, holding the input's last 4 * N bytes,
// N being the second byte, as the payload of an out-of-line frame), the connection is half-closed
// and drained until the runtime closes it. The service reads what the calls carry (strings, byte
// vectors, binders, descriptors), calls received binders back one-way and hands objects out, so
// that well-formed frames reach the object, proxy and descriptor bookkeeping. After every input
// the service must still answer a ping on an ordinary connection, and the runtime must close a
// connection whose peer has stopped sending.
#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utils/String16.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzTempDir.h"

namespace {

using namespace Halo::OS;
using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;

constexpr const char* kServiceName = "frames";
// Longer than the runtime's idle limit for a peer that stops reading (10 s): a connection still
// open after this is a hang.
constexpr int kDrainTimeoutMs = 60000;

class FrameTarget : public android::BBinder {
public:
    const String16& getInterfaceDescriptor() const override { return mDescriptor; }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code) {
            case 1: {
                int32_t number = 0;
                String16 text;
                std::vector<uint8_t> bytes;
                sp<IBinder> binder;
                data.readInt32(&number);
                data.readString16(&text);
                data.readByteVector(&bytes);
                data.readStrongBinder(&binder);
                if (binder != nullptr) {
                    Parcel call;
                    call.writeInt32(number);
                    binder->transact(1, call, nullptr, IBinder::FLAG_ONEWAY);
                }
                if (reply != nullptr) {
                    reply->writeStrongBinder(binder);
                    reply->writeStrongBinder(new android::BBinder());
                    reply->writeString16(text);
                }
                return android::OK;
            }
            case 2: {
                android::base::unique_fd fd;
                const status_t status = data.readUniqueFileDescriptor(&fd);
                if (status == android::OK && reply != nullptr) reply->writeFileDescriptor(fd.get());
                return status;
            }
            case 3: {
                int32_t size = 0;
                data.readInt32(&size);
                if (reply != nullptr && size > 0) {
                    std::vector<uint8_t> payload(static_cast<size_t>(size) % (3u << 20), 0x5a);
                    reply->writeByteVector(payload);
                }
                return android::OK;
            }
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    const String16 mDescriptor{"fuzz.IFrameTarget"};
};

struct Harness {
    fuzzing::FuzzTempDir dir{"binder-frame-fuzzer"};
    std::string socketPath;
    sp<IBinder> service;

    Harness() {
        const std::string binderDir = dir.file("binder", true);
        setenv("BINDER_DIR", binderDir.c_str(), 1);
        socketPath = binderDir + "/" + kServiceName;
        if (android::defaultServiceManager()->addService(String16(kServiceName),
                                                         new FrameTarget()) != android::OK) {
            abort();
        }
        service = android::defaultServiceManager()->checkService(String16(kServiceName));
        if (service == nullptr) abort();
    }
};

Harness* harness() {
    static Harness* instance = new Harness();
    return instance;
}

int connectTo(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        perror("connect");
        abort();
    }
    return fd;
}

// A memfd holding `size` bytes of `data`, sealed as the runtime requires of out-of-line payloads.
int sealedMemfd(const uint8_t* data, size_t size) {
    const int fd = memfd_create("fuzz-payload", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) ||
        fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) != 0) {
        perror("memfd");
        abort();
    }
    return fd;
}

// Sends the first byte with `memfd` (unless -1) and then `fdCount` descriptors of /dev/null
// attached; takes `memfd`. False when the runtime has already closed the connection.
bool sendWithDescriptors(int fd, const uint8_t* data, size_t size, int memfd, int fdCount) {
    std::vector<int> fds;
    if (memfd >= 0) fds.push_back(memfd);
    for (int i = 0; i < fdCount; ++i) fds.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    iovec iov{const_cast<uint8_t*>(data), size};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    std::vector<char> control(CMSG_SPACE(sizeof(int) * 4));
    if (!fds.empty()) {
        msg.msg_control = control.data();
        msg.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        cmsghdr* header = CMSG_FIRSTHDR(&msg);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        memcpy(CMSG_DATA(header), fds.data(), sizeof(int) * fds.size());
    }
    const ssize_t sent = sendmsg(fd, &msg, MSG_NOSIGNAL);
    for (int open : fds) close(open);
    return sent > 0;
}

// Reads and drops everything until the runtime closes the connection.
void drain(int fd) {
    for (;;) {
        pollfd pfd{fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, kDrainTimeoutMs);
        if (ready == 0) {
            fprintf(stderr, "the runtime kept a half-closed connection open\n");
            abort();
        }
        if (ready < 0) {
            if (errno == EINTR) continue;
            abort();
        }
        uint8_t buffer[65536];
        const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    harness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Harness* h = harness();
    if (size == 0) return 0;
    const int fdCount = data[0] % 4;
    const bool withMemfd = (data[0] & 4) != 0 && size > 1;
    ++data;
    --size;
    int memfd = -1;
    if (withMemfd) {
        const size_t tail = std::min<size_t>(size - 1, data[0] * 4u);
        memfd = sealedMemfd(data + size - tail, tail);
        ++data;
        size -= 1 + tail;
        if (size == 0) close(memfd);
    }

    const int fd = connectTo(h->socketPath);
    bool open = true;
    if (size > 0) {
        const size_t first = fdCount > 0 || memfd >= 0 ? 1 : size;
        open = sendWithDescriptors(fd, data, first, memfd, fdCount);
        size_t offset = first;
        while (open && offset < size) {
            const ssize_t n = send(fd, data + offset, size - offset, MSG_NOSIGNAL);
            if (n <= 0) {
                if (n < 0 && errno == EINTR) continue;
                open = false;
            } else {
                offset += static_cast<size_t>(n);
            }
        }
    }
    shutdown(fd, SHUT_WR);
    drain(fd);
    close(fd);

    if (h->service->pingBinder() != android::OK) {
        fprintf(stderr, "the service stopped answering\n");
        abort();
    }
    return 0;
}
