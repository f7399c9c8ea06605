#pragma once

namespace LumTest {

// Registers a platform callback (a Lum::Sv::Reg... function) for the lifetime
// of the object and removes it again, also when an assertion ends the test
// early: the callback slots are process-wide.
template <typename Fn>
class Registration {
 public:
  Registration(void (*reg)(Fn), Fn callback) : reg_(reg) { reg_(callback); }
  ~Registration() { reg_(nullptr); }
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

 private:
  void (*reg_)(Fn);
};

}  // namespace LumTest
