# The version text ("1.0beta1") as the numbers Windows wants: a file version
# of four 16-bit parts and an installer version of three. The stage is packed
# as the package versions pack it (alpha 97, beta 98, rc 99, final 102), so
# that 1.0beta1 < 1.0rc1 < 1.0 both as file versions (1.0.98.1, 1.0.99.1,
# 1.0.102.0) and as installer versions (1.0.25089, 1.0.25345, 1.0.26112),
# and a newer installer replaces an older one.
if(NOT TARNLIFT_VERSION_WORDS MATCHES "^([0-9]+)\\.([0-9]+)(alpha|beta|rc|final)?([0-9]*)$")
  message(FATAL_ERROR "version text '${TARNLIFT_VERSION_WORDS}' is not MAJOR.MINOR[alpha|beta|rc][N]")
endif()
set(TARNLIFT_WIN_MAJOR ${CMAKE_MATCH_1})
set(TARNLIFT_WIN_MINOR ${CMAKE_MATCH_2})
set(stage_word "${CMAKE_MATCH_3}")
set(TARNLIFT_WIN_BUILD "${CMAKE_MATCH_4}")
if(TARNLIFT_WIN_BUILD STREQUAL "")
  set(TARNLIFT_WIN_BUILD 0)
endif()
if(stage_word STREQUAL "alpha")
  set(TARNLIFT_WIN_STAGE 97)
elseif(stage_word STREQUAL "beta")
  set(TARNLIFT_WIN_STAGE 98)
elseif(stage_word STREQUAL "rc")
  set(TARNLIFT_WIN_STAGE 99)
else()
  set(TARNLIFT_WIN_STAGE 102)
endif()
set(TARNLIFT_WIN_FILEVERSION "${TARNLIFT_WIN_MAJOR},${TARNLIFT_WIN_MINOR},${TARNLIFT_WIN_STAGE},${TARNLIFT_WIN_BUILD}")
set(TARNLIFT_WIN_VERSION_DOTTED "${TARNLIFT_WIN_MAJOR}.${TARNLIFT_WIN_MINOR}.${TARNLIFT_WIN_STAGE}.${TARNLIFT_WIN_BUILD}")
math(EXPR msi_build "${TARNLIFT_WIN_STAGE} * 256 + ${TARNLIFT_WIN_BUILD}")
set(TARNLIFT_MSI_VERSION "${TARNLIFT_WIN_MAJOR}.${TARNLIFT_WIN_MINOR}.${msi_build}")

# Gives a Windows program its manifest and version resource.
#   tarnlift_program_resources(TARGET FILE_NAME "Description" WINDOW|CONSOLE)
# WINDOW programs get the themed controls (Common Controls 6).
function(tarnlift_program_resources target file_name description kind)
  set(TARNLIFT_RC_FILE_NAME "${file_name}")
  set(TARNLIFT_RC_DESCRIPTION "${description}")
  set(TARNLIFT_RC_IDENTITY "Quenlark.Tarnlift.${target}")
  if(kind STREQUAL "WINDOW")
    set(TARNLIFT_RC_CONTROLS [=[
  <dependency>
    <dependentAssembly>
      <assemblyIdentity type="win32" name="Microsoft.Windows.Common-Controls" version="6.0.0.0"
                        processorArchitecture="*" publicKeyToken="6595b64144ccf1df" language="*"/>
    </dependentAssembly>
  </dependency>]=])
  else()
    set(TARNLIFT_RC_CONTROLS "")
  endif()
  set(dir ${CMAKE_BINARY_DIR}/generated/${target})
  configure_file(${PROJECT_SOURCE_DIR}/resources/windows/program.manifest.in ${dir}/program.manifest @ONLY)
  set(TARNLIFT_RC_MANIFEST ${dir}/program.manifest)
  configure_file(${PROJECT_SOURCE_DIR}/resources/windows/program.rc.in ${dir}/program.rc @ONLY)
  target_sources(${target} PRIVATE ${dir}/program.rc)
  set_source_files_properties(${dir}/program.rc PROPERTIES OBJECT_DEPENDS ${dir}/program.manifest)
endfunction()
