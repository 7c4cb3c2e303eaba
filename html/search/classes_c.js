var searchData=
[
  ['oldparenterror_0',['OldParentError',['../classkelm_1_1host_1_1OldParentError.html',1,'kelm::host']]],
  ['openfile_1',['OpenFile',['../structkelm_1_1host_1_1OpenFile.html',1,'kelm::host']]],
  ['orderedworkers_2',['OrderedWorkers',['../classkelm_1_1host_1_1OrderedWorkers.html',1,'kelm::host']]],
  ['overlaidstream_3',['OverlaidStream',['../classkelm_1_1host_1_1OverlaidStream.html',1,'kelm::host']]],
  ['overlay_4',['Overlay',['../structkelm_1_1host_1_1Overlay.html',1,'kelm::host']]]
];
