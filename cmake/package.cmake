# `cpack -G DEB` in the build folder: a package of each component that is built. Included last, when all
# are known.
set(CPACK_PACKAGE_VENDOR "hxcrate maintainers")
set(CPACK_PACKAGE_CONTACT "hxcrate maintainers <maintainers@hxcrate.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

set(CPACK_DEBIAN_CORE_PACKAGE_NAME hxcrate)
set(CPACK_DEBIAN_CORE_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
set(CPACK_COMPONENT_CORE_DESCRIPTION
    "A store file holds a whole tree of items, and an update of it is one transaction.
This package holds the command hxcrate, the C++ library behind it with its headers,
and the module that both run on.")

set(CPACK_DEBIAN_REMOTE_PACKAGE_NAME hxcrate-remote)
set(CPACK_DEBIAN_REMOTE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_REMOTE_PACKAGE_DEPENDS "hxcrate (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_REMOTE_DESCRIPTION
    "A store file holds a whole tree of items, and an update of it is one transaction.
This package holds the library by which stores behind URLs are read.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-hxcrate)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
# Of the one Python that it was built for, and of the library whose version it is.
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "hxcrate (= ${PROJECT_VERSION}), ${hx_python_depends}")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-fsspec, python3-numpy")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION
    "A store file holds a whole tree of items, and an update of it is one transaction.
This package holds the module hxcrate for Python 3.")

set(CPACK_DEBIAN_MOUNT_PACKAGE_NAME hxcrate-mount)
set(CPACK_DEBIAN_MOUNT_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_MOUNT_PACKAGE_DEPENDS "hxcrate (= ${PROJECT_VERSION}), fuse3")
set(CPACK_COMPONENT_MOUNT_DESCRIPTION
    "A store file holds a whole tree of items, and an update of it is one transaction.
This package holds the program behind hxcrate mount, which shows a store as a folder.")
include(CPack)
