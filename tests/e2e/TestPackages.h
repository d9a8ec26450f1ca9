#pragma once

#include <string>

namespace Halo::OS::testing {

// Package files of the end-to-end tests' device.
//
//   com.test.alpha  uid 10123, reads and writes settings:
//       alpha_count     integer  user       default 3           writable
//       alpha_total     long     system     default 9000000000  writable
//       alpha_ratio     float    crossUser  default 0.5         writable
//       alpha_distance  double   user       default 1.25        writable
//       alpha_enabled   boolean  system     default false       writable
//       alpha_label     string   crossUser  default "none"      writable
//       alpha_locked    integer  user       default 1           read only
//   com.test.beta   uid 10124, reads settings only: beta_mode (string, user, "auto", writable)
//   com.test.gamma  uid 10125, reads and writes: gamma_level (integer, system, 1), and with
//                   `extra` also gamma_extra (boolean, user, true)
//   com.test.delta  uid 10126, reads and writes: delta_on (boolean, system, true)
class TestPackages {
public:
    static std::string alpha();
    static std::string beta();
    static std::string gamma(bool extra);
    static std::string delta();
};

}  // namespace Halo::OS::testing
