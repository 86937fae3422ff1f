# Part of the installation: writes the units and installs them. kessard@.service is kessard.service with the places of one
# agent among several, the same for every prefix.

function(install_unit name source)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${source} ${unit_directory}/${name} @ONLY)
  file(INSTALL ${unit_directory}/${name} DESTINATION ${kessard_root}/lib/systemd/system)
endfunction()

set(home /var/lib/kessard)
set(cfg_file ${kessard_root}/etc/kessard/agt.cfg)
install_unit(kessard-exporter.service kessard-exporter.service.in)
set(unit kessard)
install_unit(kessard.service kessard.service.in)

set(unit kessard@NAME)
set(title ", %i")
set(home /var/lib/kessard/agents/%i)
set(cfg_file /etc/kessard/%i/agt.cfg)
set(directories "StateDirectory=kessard/agents/%i kessard/agents/%i/run
StateDirectoryMode=0751
LogsDirectory=kessard/agents/%i kessard/agents/%i/proc kessard/agents/%i/proc/kessard
LogsDirectoryMode=0750
")
install_unit(kessard@.service kessard.service.in)
