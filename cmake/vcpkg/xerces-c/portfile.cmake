# The XML library as the product is linked with it: Debian's source, with Debian's patches and those of
# cmake/patches, built with the options that scripts/lib.sh has.
set(SOURCE_PATH "${CURRENT_PORT_DIR}/../../../build/deps/xerces-source")
if(NOT EXISTS "${SOURCE_PATH}/CMakeLists.txt")
  message(FATAL_ERROR "First unpack the source into build/deps/xerces-source: "
    "run scripts/xerces-source on Debian 12, for example in WSL")
endif()
vcpkg_cmake_configure(SOURCE_PATH "${SOURCE_PATH}" OPTIONS
  -Dnetwork=OFF -Dtranscoder=windows -Dmessage-loader=inmemory -Dmutex-manager=windows
  -Dxmlch-type=char16_t)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME xercesc CONFIG_PATH cmake)
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share")
file(INSTALL "${SOURCE_PATH}/LICENSE" DESTINATION "${CURRENT_PACKAGES_DIR}/share/${PORT}"
  RENAME copyright)
