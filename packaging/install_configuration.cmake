# Run by the installation: puts the default configuration in place where there is none.
set(conf "$ENV{DESTDIR}/etc/morvand/morvand.conf")
if(EXISTS "${conf}" OR IS_SYMLINK "${conf}")
  message(STATUS "Kept: ${conf}")
else()
  file(INSTALL "${FERRO_DEFAULT_CONF}" DESTINATION /etc/morvand
       PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endif()
