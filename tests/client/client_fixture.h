// Helpers of the client library tests.
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "client/client.h"

namespace cgtest {

// The error fn throws (a failure of the test when it throws none).
inline camgate::client::Error error_of(const std::function<void()> &fn)
{
    try {
        fn();
    } catch (const camgate::client::Error &e) {
        return e;
    }
    ADD_FAILURE() << "no error thrown";
    return camgate::client::Error(camgate::client::ErrorKind::Io, "none");
}

}  // namespace cgtest
