# zirdb_instrumentation: sanitizers and coverage, for every target alike.
add_library(zirdb_instrumentation INTERFACE)
if(ZIRDB_SANITIZE)
  target_compile_options(
    zirdb_instrumentation INTERFACE -fsanitize=${ZIRDB_SANITIZE}
                                    -fno-omit-frame-pointer)
  target_link_options(zirdb_instrumentation INTERFACE
                      -fsanitize=${ZIRDB_SANITIZE})
  if(ZIRDB_SANITIZE MATCHES "undefined")
    # float-cast-overflow is not part of "undefined", and we promise it too.
    target_compile_options(
      zirdb_instrumentation INTERFACE -fsanitize=float-cast-overflow
                                      -fno-sanitize-recover=all)
  endif()
endif()
if(ZIRDB_COVERAGE)
  target_compile_options(zirdb_instrumentation INTERFACE --coverage)
  target_link_options(zirdb_instrumentation INTERFACE --coverage)
endif()
