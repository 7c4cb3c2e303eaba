var searchData=
[
  ['verify_0',['verify',['../structkelm_1_1host_1_1DiskDropOptions.html#a758b2c7236766c4bb209b8fc8915d1d3',1,'kelm::host::DiskDropOptions']]]
];
