var searchData=
[
  ['needsdigests_0',['needsDigests',['../structkelm_1_1host_1_1CheckScope.html#aa845b112460f08c4aeac7425595f6494',1,'kelm::host::CheckScope']]],
  ['newparent_1',['newParent',['../structkelm_1_1host_1_1ParentSwap_1_1Parents.html#a36e6f2ef718315dbe58cfef76bb5353f',1,'kelm::host::ParentSwap::Parents']]],
  ['now_2',['now',['../structkelm_1_1host_1_1RateLimit_1_1Clock.html#a7402382b342ee985b435b7031bb8c684',1,'kelm::host::RateLimit::Clock']]],
  ['number_3',['number',['../structkelm_1_1host_1_1CheckedThing.html#a7bcdadb3e487cb983456e19a52204dfa',1,'kelm::host::CheckedThing']]]
];
