# Sanitizer builds: QKUTIL_SANITIZE=address adds AddressSanitizer and UBSan,
# QKUTIL_SANITIZE=thread adds ThreadSanitizer. The flags apply to every target
# so that the library, its tests and the tools are instrumented alike.
if(QKUTIL_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(QKUTIL_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT QKUTIL_SANITIZE STREQUAL "")
  message(FATAL_ERROR "QKUTIL_SANITIZE must be address, thread or empty")
endif()
