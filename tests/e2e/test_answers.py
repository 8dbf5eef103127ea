"""Answers from the fuzzing corpus and from earlier findings, one for each account of a run."""

import pytest

from fuzz.answers import Trial, corpus

ENDS_THE_RUN = "refusal-cut-off"


@pytest.fixture
def answers():
    return [answer for name, answer in corpus().items() if name != ENDS_THE_RUN]


def test_no_answer_of_the_corpus_does_harm(machine, service, answers):
    Trial(machine, service, len(answers)).run(answers)


def test_truncated_refusal_does_no_harm(machine, service):
    Trial(machine, service, 3).run([corpus()[ENDS_THE_RUN]] * 3)


def test_answers_of_the_corpus_do_no_harm_in_small_pieces(machine, service, answers):
    def pieces(answer):
        return [answer[at : at + 7] for at in range(0, len(answer), 7)]

    Trial(machine, service, len(answers)).run(answers, pieces)
