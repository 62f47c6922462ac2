# KESTRIN_SANITIZERS is a list such as "address;undefined" or "thread"; it applies to every target.
set(KESTRIN_SANITIZERS "" CACHE STRING "Sanitizers for every target, e.g. address;undefined")

if(KESTRIN_SANITIZERS)
  list(JOIN KESTRIN_SANITIZERS "," _kestrin_sanitizers)
  add_compile_options(-fsanitize=${_kestrin_sanitizers} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_kestrin_sanitizers})
endif()
