# Gives Zor::ChildProcessTracker and Vel::vel, which it is built on.

# <Vel/GenericIf.h> includes a header of Boost; no library of Boost is needed.
find_path(VEL_BOOST_INCLUDE_DIR boost/container/small_vector.hpp)
mark_as_advanced(VEL_BOOST_INCLUDE_DIR)
if(NOT VEL_BOOST_INCLUDE_DIR)
   set(ZorChildProcessTracker_FOUND FALSE)
   set(ZorChildProcessTracker_NOT_FOUND_MESSAGE
      "Header boost/container/small_vector.hpp not found (Debian: libboost-dev)")
   return()
endif()

include(${CMAKE_CURRENT_LIST_DIR}/VelTargets.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/ZorTargets.cmake)
target_include_directories(Vel::vel SYSTEM INTERFACE ${VEL_BOOST_INCLUDE_DIR})
