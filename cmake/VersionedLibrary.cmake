# Makes a shared library of all sources in one folder under the current one. It shows what its
# sources mark as exported, as far as the version script lets that out. Headers in a folder
# `internal` are not installed.
function(add_versioned_library target folder version_script)
   set(script ${CMAKE_CURRENT_SOURCE_DIR}/${version_script})
   file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${folder}/*.cpp)
   add_library(${target} SHARED ${sources})
   set_target_properties(${target} PROPERTIES
      VERSION ${PROJECT_VERSION}
      SOVERSION ${PROJECT_VERSION_MAJOR}
      CXX_VISIBILITY_PRESET hidden
      VISIBILITY_INLINES_HIDDEN ON
      INSTALL_RPATH $ORIGIN
      LINK_DEPENDS ${script})
   # Nobody may put a function of his own before one of ours, so calls within need no detour.
   # Those to other libraries go straight to where the loader has found them.
   target_compile_options(${target} PRIVATE -fno-semantic-interposition -fno-plt)
   target_link_options(${target} PRIVATE -Wl,-Bsymbolic-functions)
   if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND NOT VEL_SANITIZE)
      set_target_properties(${target} PROPERTIES
         INTERPROCEDURAL_OPTIMIZATION_RELEASE ON
         INTERPROCEDURAL_OPTIMIZATION_RELWITHDEBINFO ON)
   endif()
   target_compile_features(${target} PUBLIC cxx_std_20)
   target_include_directories(${target} PUBLIC
      $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
      $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
   target_link_options(${target} PRIVATE -Wl,--as-needed -Wl,--version-script=${script})
   if(NOT VEL_SANITIZE)
      # A sanitizer's runtime is linked into the program, and so missing here.
      target_link_options(${target} PRIVATE -Wl,-z,defs)
   endif()
   install(TARGETS ${target} EXPORT ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
   install(DIRECTORY ${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING
      PATTERN *.h
      PATTERN internal EXCLUDE)
endfunction()
