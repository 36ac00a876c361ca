// Tests that run once per transport: cleartext HTTP/1.1, HTTPS/1.1 and
// HTTPS/2, each against an origin of its own.
//
//   class RequestPathOver : public velora_test::OverEachTransport {};
//   TEST_P(RequestPathOver, Something) { ... origin.url("/bytes/10") ... }
//   VELORA_OVER_EACH_TRANSPORT(RequestPathOver);
#ifndef VELORA_TESTS_UNIT_TRANSPORT_PARAM_H
#define VELORA_TESTS_UNIT_TRANSPORT_PARAM_H

#include <gtest/gtest.h>

#include <string>

#include "origin_server.h"

namespace velora_test {

class OverEachTransport : public ::testing::TestWithParam<Transport> {
 protected:
  bool overTls() const { return GetParam() != Transport::kHttp; }

  OriginServer origin{GetParam()};
};

inline std::string transportTestName(const ::testing::TestParamInfo<Transport>& info) {
  return transportName(info.param);
}

}  // namespace velora_test

#define VELORA_OVER_EACH_TRANSPORT(fixture)                                                \
  INSTANTIATE_TEST_SUITE_P(, fixture, ::testing::ValuesIn(::velora_test::allTransports()), \
                           ::velora_test::transportTestName)

#endif  // VELORA_TESTS_UNIT_TRANSPORT_PARAM_H
