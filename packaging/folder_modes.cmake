# CPack runs this on what it packs. Folders are made under the umask of who builds the package, and a mode that is asked of CMake
# for them does not go beyond that; those of files do.
file(CHMOD_RECURSE ${CPACK_TEMPORARY_DIRECTORY} DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
