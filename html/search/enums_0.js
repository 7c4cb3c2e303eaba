var searchData=
[
  ['access_0',['Access',['../classyx_1_1IIOStream.html#ab16f6c9e619adc7f42ee9bc4ccba2d12',1,'yx::IIOStream']]]
];
