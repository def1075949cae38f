# Copies the package list to the build folder and fetches the packages there, once.
if(EXISTS ${TO}/node_modules/mqtt/package.json AND EXISTS ${TO}/node_modules/mqtt5/package.json)
  return()
endif()
file(COPY ${FROM}/package.json ${FROM}/package-lock.json DESTINATION ${TO})
execute_process(COMMAND npm ci --no-audit --no-fund --ignore-scripts WORKING_DIRECTORY ${TO} RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message("npm: not installed (${result})")
endif()
