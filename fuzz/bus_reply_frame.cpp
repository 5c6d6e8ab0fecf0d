// zs_call reading reply frames: a stand-in service (raw socket, a thread per input) takes the
// call frame and answers with the input's bytes, then hangs up. zs_call must succeed with
// exactly the announced body for a well-formed reply, and otherwise fail with EPROTO or
// EMSGSIZE; never hang until its time-out, never read past what was announced.
#include "fuzz/fuzz_support.h"
#include "tests/support/bus.h"
#include "zservice/internal.h"
#include "zservice/zservice.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

using namespace Orvex;

namespace {

const char kMethod[] = "fuzz";

// Takes one call and answers it with `answer`, then hangs up.
void answerOnce(int listening, const std::string& answer)
{
    UniqueFd fd(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    char call[ZS_HEADER_SIZE + sizeof(kMethod) - 1];
    // The whole call first, so closing after the answer is a clean end of stream.
    if (fd && recv(fd.get(), call, sizeof call, MSG_WAITALL) == sizeof call)
        Test::sendAll(fd.get(), answer);
}

void checkOutcome(const uint8_t* data, size_t size, int result, int error, zs_io* io)
{
    Bus::Header header;
    bool wellFormed = size >= ZS_HEADER_SIZE && Bus::decodeHeader(data, header) && header.kind == ZS_KIND_REPLY &&
                      header.nameLength == 0;
    uint32_t bodyLength = wellFormed ? header.bodyLength : 0;
    if (wellFormed && bodyLength <= size - ZS_HEADER_SIZE) {
        FUZZ_CHECK(result == 0, "a whole reply is accepted");
        std::string body(zs_io_read(io, 0), zs_io_size(io));
        FUZZ_CHECK(body == std::string(reinterpret_cast<const char*>(data) + ZS_HEADER_SIZE, bodyLength),
                   "the body is exactly the announced bytes");
        return;
    }
    FUZZ_CHECK(result == -1, "a broken or short reply fails");
    // An oversized announcement is refused as such before any body is read.
    int expected = wellFormed && bodyLength > ZS_MAX_BODY ? EMSGSIZE : EPROTO;
    FUZZ_CHECK(error == expected, std::strerror(error));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string address = Test::uniqueAddress("reply");
    static UniqueFd listening(Test::rawListen(address));
    FUZZ_CHECK(listening, "stand-in service listens");
    std::thread service(answerOnce, listening.get(), std::string(reinterpret_cast<const char*>(data), size));
    zs_io* io = zs_io_create();
    zs_io_write(io, "previous content", 16);
    errno = 0;
    int result = zs_call(address.c_str(), kMethod, io, 10, -1);
    int error = errno;
    service.join();
    checkOutcome(data, size, result, error, io);
    zs_io_free(io);
    return 0;
}
