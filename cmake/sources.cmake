# The program's sources, relative to the source tree. The entry, main, is in
# tarnel.cpp, which tests and fuzzers rename so that they can link it with
# fakes.
set(TARNEL_SOURCES
  src/driver/tarnel.cpp
  src/stress/l2_stress.cpp
  src/stress/crand.cpp
  src/march/march.cpp
  src/march/march2.cpp
  src/march/march3.cpp
  src/util/l2_util.cpp)
