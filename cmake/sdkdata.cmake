# The SDK data folder "velmo" (the stylesheets and styles of the broker's pages). The library
# looks for it at ../share/velmo from its own directory, so the build tree mirrors the
# installed layout: <build>/lib/libvelmo.so and <build>/share/velmo.
set(VELMO_SDK_DATA_SOURCE_DIR ${PROJECT_SOURCE_DIR}/share/velmo)
set(VELMO_SDK_DATA_DIR ${PROJECT_BINARY_DIR}/share/velmo)

# CONFIGURE_DEPENDS: a file added to the folder is picked up by the next build.
file(GLOB_RECURSE velmo_sdk_data_files CONFIGURE_DEPENDS RELATIVE ${VELMO_SDK_DATA_SOURCE_DIR}
     ${VELMO_SDK_DATA_SOURCE_DIR}/*)

set(velmo_sdk_data_outputs)
foreach(file IN LISTS velmo_sdk_data_files)
  add_custom_command(
    OUTPUT ${VELMO_SDK_DATA_DIR}/${file}
    COMMAND ${CMAKE_COMMAND} -E copy ${VELMO_SDK_DATA_SOURCE_DIR}/${file}
            ${VELMO_SDK_DATA_DIR}/${file}
    DEPENDS ${VELMO_SDK_DATA_SOURCE_DIR}/${file}
    COMMENT "Copying share/velmo/${file}"
    VERBATIM)
  list(APPEND velmo_sdk_data_outputs ${VELMO_SDK_DATA_DIR}/${file})
endforeach()

add_custom_target(velmo_sdk_data ALL DEPENDS ${velmo_sdk_data_outputs})
# Whatever links the library (tests, the Python extension, programs) finds the data current.
add_dependencies(velmo velmo_sdk_data)

# lib/ and share/ stay siblings once installed; GNUInstallDirs' lib/<triplet> would break the
# relative lookup.
install(TARGETS velmo LIBRARY DESTINATION lib)
install(DIRECTORY ${VELMO_SDK_DATA_SOURCE_DIR}/ DESTINATION share/velmo)
