# The builds that find errors while they run: -DTAV_SANITIZE=ON, and -DTAV_FUZZ=ON with clang.
if(TAV_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  # The check of an object's dynamic type creates a pipe to find out whether memory can be read. If
  # a test leaves a program no free descriptor, that fails, and the check reports a valid object.
  # AddressSanitizer still sees virtual calls on dead objects.
  add_compile_options(-fno-sanitize=vptr)
  add_link_options(-fsanitize=address,undefined)
endif()

if(TAV_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
    -fno-omit-frame-pointer -g)
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
  add_link_options(-fsanitize=address,undefined)
endif()
