var searchData=
[
  ['readonly_0',['ReadOnly',['../classyx_1_1IIOStream.html#ab16f6c9e619adc7f42ee9bc4ccba2d12ac47c6a7b22bad9b4cceb3d9b0e1434c1',1,'yx::IIOStream']]],
  ['readwrite_1',['ReadWrite',['../classyx_1_1IIOStream.html#ab16f6c9e619adc7f42ee9bc4ccba2d12a104558f6beaf47d123b6c3cf49cb22f5',1,'yx::IIOStream']]]
];
