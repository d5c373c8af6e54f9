# Which compiler makes the tests and the replays of fuzzing: with GSVE_TEST_COMPILER that one, a Clang.

# GCC 12 to 16 see overlaps and overruns in their own std::string and std::vector (GCC bug 105651).
set(gcc_false_warnings -Wno-restrict -Wno-array-bounds -Wno-stringop-overread -Wno-stringop-overflow)

# Three quarters of a cold build are Google Test's macros, which Clang turns into code in half of GCC's time. What is
# tested stays with the compiler that it is built with.
set(product_compiler ${CMAKE_CXX_COMPILER})
set(product_compiler_id ${CMAKE_CXX_COMPILER_ID})
if(GSVE_TEST_COMPILER)
  set(CMAKE_CXX_COMPILER ${GSVE_TEST_COMPILER})
  set(CMAKE_CXX_COMPILER_ID Clang)
  set(CMAKE_PCH_EXTENSION .pch)
  set(CMAKE_CXX_COMPILE_OPTIONS_USE_PCH -Xclang -include-pch -Xclang <PCH_FILE> -Xclang -include -Xclang <PCH_HEADER>)
  set(CMAKE_CXX_COMPILE_OPTIONS_CREATE_PCH -Xclang -emit-pch -Xclang -include -Xclang <PCH_HEADER> -x c++-header)
  set(pch_option -Xclang -fno-pch-timestamp)  # for ccache
  # The kernels switch off warnings that are GCC's alone; what a designated initializer leaves out has its default.
  add_compile_options(-Wno-unknown-warning-option -Wno-missing-designated-field-initializers)
else()
  set(pch_option -fpch-preprocess)
  add_compile_options(${gcc_false_warnings})
endif()
