#include "client/capture.h"

#include "client/capturewriter.h"
#include "client/client.h"

namespace kelvane::client {

BusCapture::BusCapture(const std::string& path) {
    try {
        m_writer = std::make_unique<CaptureWriter>(path);
    } catch (const capture::CaptureError& error) {
        throw InputError(error.what());
    }
}

BusCapture::~BusCapture() = default;

void BusCapture::finish() {
    try {
        m_writer->finish();
    } catch (const capture::CaptureError& error) {
        throw InputError(error.what());
    }
}

} // namespace kelvane::client
