var searchData=
[
  ['report_0',['Report',['../classkelm_1_1host_1_1FindingFold.html#a14643d0779476b013957170fbee7515c',1,'kelm::host::FindingFold']]]
];
