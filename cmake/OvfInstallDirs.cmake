# Where an installation puts things. Included before any directory that installs something.

# The plug-in, its runtime and its tools belong to the suite, and the suite lives under its install root: that
# is the default prefix of an installation and the prefix of the package. GNUInstallDirs then puts the host's
# settings under /etc/opt/... for a prefix under /opt, as the FHS asks.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX "${OVF_INSTALL_ROOT}" CACHE PATH "Install prefix (the suite's install root)" FORCE)
endif()
include(GNUInstallDirs)

# systemd reads units only from its own directories, never from under /opt. For a prefix under /opt the unit
# goes where the distribution's own units are; any other prefix keeps it below the prefix (/usr/lib/systemd/system
# for /usr), so that an installation into a scratch prefix writes nothing outside it.
if(CMAKE_INSTALL_PREFIX MATCHES "^/opt/")
  set(OVF_SYSTEMD_UNITDIR "/lib/systemd/system")
else()
  set(OVF_SYSTEMD_UNITDIR "lib/systemd/system")
endif()

# Headers for module authors live in a directory of their own, so that their plain names (Plugin.h, ...) never
# meet another package's in a shared include directory.
set(OVF_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/libovfeedback")
set(OVF_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/libovfeedback")
