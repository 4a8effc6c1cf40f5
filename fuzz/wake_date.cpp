// Wake dates: any text answers "paused" or "not paused" without tripping the
// date library's range checks (sanitizers and libFuzzer catch the rest).
#include <boost/date_time/gregorian/gregorian.hpp>
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "UploaderStatus.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int state =
      Uploader::WakeDateState(fuzz_support::Bytes(data, size), boost::gregorian::date(2020, 6, 15));
  FUZZ_CHECK(state == Uploader::kNotPaused || state == Uploader::kPaused);
  return 0;
}
