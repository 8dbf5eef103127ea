# Builds the patched library for vcpkg, instead of vcpkg's own port, which lacks the patches and uses the tasks of
# Visual Studio's run-time rather than the library's own.
vcpkg_download_distfile(archive
    URLS https://deb.debian.org/debian/pool/main/c/cpprest/cpprest_${VERSION}.orig.tar.gz
         https://github.com/microsoft/cpprestsdk/archive/refs/tags/v${VERSION}.tar.gz
    FILENAME cpprest_${VERSION}.orig.tar.gz
    SHA512 2d8fa213f492236e2fd912349bf81951c1e618dd8eab4f665f909d75b5aeeda18b8f70dce3a4db50d67bdb3e372888132481701163de6c27716dfd750bff9781)
file(GLOB patches ${CURRENT_PORT_DIR}/[0-9]*.patch)
list(SORT patches)
vcpkg_extract_source_archive(source ARCHIVE ${archive} PATCHES ${patches})

vcpkg_cmake_configure(SOURCE_PATH ${CURRENT_PORT_DIR} OPTIONS -DSOURCE_DIR=${source})
vcpkg_cmake_install()
vcpkg_cmake_config_fixup()
file(REMOVE_RECURSE ${CURRENT_PACKAGES_DIR}/debug/include ${CURRENT_PACKAGES_DIR}/debug/share)
vcpkg_install_copyright(FILE_LIST ${source}/license.txt)
