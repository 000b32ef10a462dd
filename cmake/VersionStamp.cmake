# The version text carries the moment of the build. A custom command rewrites
# a one-line source file on every build, so the stamp never goes stale while
# the rest of the tree stays incremental.
set(TARNLIFT_VERSION_SOURCE ${CMAKE_BINARY_DIR}/generated/version_stamp.cpp)
add_custom_target(tarnlift_version_stamp ALL
  COMMAND ${CMAKE_COMMAND} -DOUT=${TARNLIFT_VERSION_SOURCE} -DWORDS=${TARNLIFT_VERSION_WORDS}
          -P ${CMAKE_CURRENT_LIST_DIR}/WriteVersion.cmake
  BYPRODUCTS ${TARNLIFT_VERSION_SOURCE}
  COMMENT "Stamping the version text")
