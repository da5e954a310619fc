# What a deployment chooses, and whether it can be used.

set(KEYFOLD_EMAIL_DOMAIN "@orvane.example" CACHE STRING "Appended to a login name to make the e-mail address")
set(KEYFOLD_HELP_URL "https://help.orvane.example/certificates" CACHE STRING "Address of the help article")
set(KEYFOLD_CERTIFICATE_AUTHORITY "" CACHE FILEPATH
    "The certificate authority's certificate (DER); empty: a demonstration authority is made")
find_program(OPENSSL_TOOL openssl REQUIRED DOC "Debian package openssl")

if(NOT KEYFOLD_EMAIL_DOMAIN MATCHES "^@[A-Za-z0-9.-]+$")
  message(FATAL_ERROR "KEYFOLD_EMAIL_DOMAIN must be an @ and a domain, not '${KEYFOLD_EMAIL_DOMAIN}'")
endif()

# The address goes into C++ and RTF text as it stands; XML has a form of its own for one of the characters.
if(NOT KEYFOLD_HELP_URL MATCHES "^https?://[A-Za-z0-9._~:/?#@!$&'()*+,;=%-]+$")
  message(FATAL_ERROR "KEYFOLD_HELP_URL must be a web address, not '${KEYFOLD_HELP_URL}'")
endif()
string(REPLACE "&" "&amp;" KEYFOLD_HELP_URL_XML "${KEYFOLD_HELP_URL}")

# keyfold_authority_problem(FILE VARIABLE): why a file cannot be the authority, in words that follow its name; empty where
# it can. The page looks for the certificate by its common name, and the tool refuses what is no valid root.
function(keyfold_authority_problem file variable)
  set(${variable} "" PARENT_SCOPE)
  if(NOT EXISTS "${file}" OR IS_DIRECTORY "${file}")
    set(${variable} "is no file" PARENT_SCOPE)
    return()
  endif()
  set(x509 "${OPENSSL_TOOL}" x509 -inform DER -in "${file}")

  # Nothing but the certificate: what was read and is written again is the file.
  execute_process(COMMAND ${x509} -outform DER COMMAND "${OPENSSL_TOOL}" dgst -sha256 -r
                  RESULTS_VARIABLE statuses OUTPUT_VARIABLE written ERROR_QUIET)
  file(SHA256 "${file}" digest)
  if(NOT statuses STREQUAL "0;0" OR NOT written MATCHES "^${digest} ")
    set(${variable} "is not one certificate in DER (openssl x509 -outform DER makes it from PEM)" PARENT_SCOPE)
    return()
  endif()

  # An attribute on each line, also where several make up one part of the name; the last common name counts.
  execute_process(COMMAND ${x509} -noout -subject -nameopt sep_multiline,utf8,esc_2253,esc_ctrl OUTPUT_VARIABLE subject)
  string(REPLACE " + " "\n    " subject "${subject}")
  if(NOT subject MATCHES ".*\n    CN=([^\n]+)" OR NOT CMAKE_MATCH_1 STREQUAL "Orvane Certification Authority")
    set(${variable} "must have the common name \"Orvane Certification Authority\", not \"${CMAKE_MATCH_1}\"" PARENT_SCOPE)
    return()
  endif()

  # A plain "Yes" is what its basic constraints and its key usage permit; others have a warning behind it.
  execute_process(COMMAND ${x509} -noout -purpose OUTPUT_VARIABLE purposes)
  if(NOT purposes MATCHES "\nCRL signing CA : Yes\n")
    set(${variable} "is not the certificate of an authority (CA:TRUE, and keyCertSign where there is a key usage)" PARENT_SCOPE)
    return()
  endif()

  execute_process(COMMAND ${x509} -noout -pubkey COMMAND "${OPENSSL_TOOL}" pkey -pubin -noout -text OUTPUT_VARIABLE key)
  if(key MATCHES "Public-Key: \\(([0-9]+) bit\\)\nModulus:" AND CMAKE_MATCH_1 LESS 2048)
    set(${variable} "has an RSA key of ${CMAKE_MATCH_1} bits; at least 2048 are needed" PARENT_SCOPE)
    return()
  endif()

  # The rest: who signed it, when it is valid, other kinds of keys (level 2: 112 bits of strength).
  execute_process(COMMAND "${OPENSSL_TOOL}" verify -trusted "${file}" -check_ss_sig -auth_level 2 "${file}"
                  RESULT_VARIABLE refused OUTPUT_QUIET ERROR_VARIABLE reason)
  if(refused)
    set(${variable} "is not a root certificate that can be used: ${reason}" PARENT_SCOPE)
  endif()
endfunction()

if(KEYFOLD_CERTIFICATE_AUTHORITY)
  keyfold_authority_problem("${KEYFOLD_CERTIFICATE_AUTHORITY}" problem)
  if(problem)
    message(FATAL_ERROR "KEYFOLD_CERTIFICATE_AUTHORITY: ${KEYFOLD_CERTIFICATE_AUTHORITY} ${problem}")
  endif()
endif()
