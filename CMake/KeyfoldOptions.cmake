# What a deployment and a developer choose.

set(KEYFOLD_EMAIL_DOMAIN "@orvane.example" CACHE STRING "Appended to a login name to make the e-mail address")
set(KEYFOLD_HELP_URL "https://help.orvane.example/certificates" CACHE STRING "Address of the help article")
set(KEYFOLD_CERTIFICATE_AUTHORITY "" CACHE FILEPATH
    "The certificate authority's certificate (DER); empty: a demonstration authority is made")
option(KEYFOLD_WITH_QT "Build what shows windows" ON)
option(KEYFOLD_FUZZ "Build the fuzz targets; needs clang" OFF)
set(KEYFOLD_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize takes them")

if(NOT KEYFOLD_EMAIL_DOMAIN MATCHES "^@[A-Za-z0-9.-]+$")
  message(FATAL_ERROR "KEYFOLD_EMAIL_DOMAIN must be an @ and a domain, not '${KEYFOLD_EMAIL_DOMAIN}'")
endif()
# The address goes into C++ and RTF text as it stands.
if(NOT KEYFOLD_HELP_URL MATCHES "^https?://[A-Za-z0-9._~:/?#@!$&'()*+,;=%-]+$")
  message(FATAL_ERROR "KEYFOLD_HELP_URL must be a web address, not '${KEYFOLD_HELP_URL}'")
endif()
if(KEYFOLD_CERTIFICATE_AUTHORITY)
  execute_process(COMMAND openssl x509 -inform DER -in "${KEYFOLD_CERTIFICATE_AUTHORITY}" -noout -subject -ext basicConstraints
                  OUTPUT_VARIABLE authority ERROR_VARIABLE problem RESULT_VARIABLE status)
  if(NOT status EQUAL 0 OR NOT authority MATCHES "CN = Orvane Certification Authority" OR NOT authority MATCHES "CA:TRUE")
    message(FATAL_ERROR "KEYFOLD_CERTIFICATE_AUTHORITY must be a DER certificate of an authority whose common name is "
                        "\"Orvane Certification Authority\": ${authority}${problem}")
  endif()
endif()

add_library(keyfold_settings INTERFACE)
target_compile_options(keyfold_settings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Wold-style-cast
  -Werror -fstack-protector-strong
  # g++ 12 warns of std::string's own code where it optimises (GCC bug 105651).
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
target_compile_definitions(keyfold_settings INTERFACE $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
target_link_options(keyfold_settings INTERFACE -Wl,-z,relro,-z,now)
if(KEYFOLD_SANITIZE)
  target_compile_options(keyfold_settings INTERFACE -fsanitize=${KEYFOLD_SANITIZE} -fno-omit-frame-pointer
                         -fno-sanitize-recover=all
                         # With sanitizers g++ takes the standard library's own code for uninitialized.
                         $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(keyfold_settings INTERFACE -fsanitize=${KEYFOLD_SANITIZE})
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE}")
endif()

# One place for everything that is built to run, so that programs find libraries and the bundle.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
