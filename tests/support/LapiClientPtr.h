/*
 * A client handle of the client library owned by the test: closed
 * (lapi_close) when it goes out of scope. Only for tests that link the
 * client library.
 */
#ifndef LAPITEST_LAPICLIENTPTR_H
#define LAPITEST_LAPICLIENTPTR_H

#include <memory>

#include "lapi_client.h"

namespace lapitest {

struct ClientCloser {
    void operator()(lapi_client *p) const { lapi_close(p); }
};
using ClientPtr = std::unique_ptr<lapi_client, ClientCloser>;

}  // namespace lapitest

#endif /* LAPITEST_LAPICLIENTPTR_H */
