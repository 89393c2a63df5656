# jactor_options: the compiler options shared by every target of the project.
add_library(jactor_options INTERFACE)
target_compile_features(jactor_options INTERFACE cxx_std_20 c_std_11)
target_compile_options(jactor_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wundef
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
  $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes>
  $<$<BOOL:${JACTOR_WERROR}>:-Werror>)
target_link_libraries(jactor_options INTERFACE Threads::Threads)

if(JACTOR_SANITIZE)
  target_compile_options(jactor_options INTERFACE
    -fsanitize=${JACTOR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  # A C program links the C++ library, and so needs the sanitizer's C++ part too.
  target_link_options(jactor_options INTERFACE -fsanitize=${JACTOR_SANITIZE}
    $<$<LINK_LANG_AND_ID:C,Clang>:-fsanitize-link-c++-runtime>)
  target_link_libraries(jactor_options INTERFACE $<$<LINK_LANG_AND_ID:C,Clang>:stdc++>)
endif()

set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
