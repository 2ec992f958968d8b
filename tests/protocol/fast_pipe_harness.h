// A marshaller serving a simulated fast pipe device, with the test as the driver.
#pragma once

#include "serve_harness.h"
#include "simulated_device.h"

namespace zun::test {

struct DeviceHolder {
    SimulatedDevice device;
};

// The device is built before the serve starts and outlives it.
class FastPipeServe : public DeviceHolder, public ServeHarness {
public:
    explicit FastPipeServe(FormatterRequestHandler* handler, ServeOptions options = {})
        : ServeHarness(handler, on_device(options, &device)) {}

    // Takes the server's ready line and writes the client's; true once the server took it.
    bool connect() {
        if (client->wait_ready(5000) != 0) return false;
        std::vector<uint8_t> line(kClientReadyLine, kClientReadyLine + kReadyLineLength);
        SimTransfer* t = device.write(line);
        return device.wait(t) && t->error == 0 && t->consumed == kReadyLineLength;
    }

    // A request with its reply in its own transfer (direct result); the bytes placed.
    std::vector<uint8_t> transact(const std::vector<uint8_t>& message, size_t output_size = 4096) {
        SimTransfer* t = device.write(message, 3, output_size);
        EXPECT_TRUE(device.wait(t));
        return t->result();
    }

private:
    static ServeOptions on_device(ServeOptions options, SimulatedDevice* device) {
        options.device = device;
        return options;
    }
};

} // namespace zun::test
